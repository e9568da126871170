"""Calls of services: a proxy for asyncio, and one call that blocks.

request with an id -> reply with that id. A plain server gives no ids back; its replies come in the
order of the calls. Once a call to it was given up, the connection ends, so that no late reply is
taken for another's; while nobody knows what the server is, the call keeps its place instead.
"""

import asyncio
import itertools
import logging
import math
import os
import time
from typing import Any, Callable, Collection, Dict, NamedTuple, Optional, Tuple

from . import _wire
from ._client import Client
from ._connection import Connection
from ._reconnecting import Reconnecting
from ._wire import ConnectionLost, Message, ProtocolError

_MOST_GIVEN_UP = 100  # calls that a server without ids may leave unanswered

_log = logging.getLogger("tovik")

Handler = Callable[[Message], object]


class Outcome(NamedTuple):
    """What a server has answered. `status` is its word; 0 is success."""

    status: int
    result: Any = None
    error: str = ""  # names the server and the call
    parts: Tuple[Any, ...] = ()  # the earlier results of an answer that came in several replies


class _Call:
    """A call in flight."""

    def __init__(self, subject: str) -> None:
        self.subject = subject
        self.parts: Tuple[Any, ...] = ()
        self.outcome: "asyncio.Future[Outcome]" = asyncio.get_running_loop().create_future()
        self.outcome.add_done_callback(lambda done: done.cancelled() or done.exception())


class Proxy(Reconnecting):
    """A client of a service, on one event loop, from `async with` to its end.

        async with tovik.aio.Proxy("lamp") as lamp:
            lamp.subscribe("state", print)
            outcome = await lamp.call({"command": "switch", "on": True}, limit=0.5)

    It connects by itself, again `reconnect` seconds after each loss and up to `jitter` seconds
    later, so that many do not come at once, and then follows its topics again. Any number of calls
    may be in flight. `on_connect` and `on_loss`, which gets the reason, are plain functions, and
    `on_message` gets a plain server's own messages. With `server_uids`, it connects to servers of
    these users only.
    """

    def __init__(self, name: str, *, reconnect: float = 1.0, jitter: float = 0.0,
                 server_uids: Optional[Collection[int]] = None,
                 on_connect: Optional[Callable[[], object]] = None,
                 on_loss: Optional[Callable[[str], object]] = None,
                 on_message: Optional[Handler] = None) -> None:
        """Nothing happens before `async with`."""
        super().__init__(name, reconnect, jitter, server_uids, on_connect)
        self._name = name
        self._on_loss = on_loss
        self._on_message = on_message
        self._topics: Dict[str, Handler] = {}
        self._calls: Dict[int, _Call] = {}  # in the order of sending
        self._ids = itertools.count(1)
        self._with_ids: Optional[bool] = None  # the replies of this connection; None: unknown yet

    async def __aenter__(self) -> "Proxy":
        await self._enter()
        return self

    async def call(self, message: Message, limit: float) -> Outcome:
        """Calls the service, once there is a connection. Sent once at most.

        Raises `TimeoutError` after `limit` seconds, `ConnectionLost` if the connection ends
        meanwhile (the call may have been carried out in both cases), and `ProtocolError` for a
        message that cannot be sent, `TooLong` among them.
        """
        number = next(self._ids)
        record = _wire.encode(_request(message, number, limit))
        subject = _subject(self._name, message)
        try:
            return await asyncio.wait_for(self._call(subject, number, record), limit)
        except ConnectionLost as error:
            raise type(error)(f"{subject}: {error}") from error
        except asyncio.TimeoutError:
            why = "no reply" if self._connection else f"no connection ({self._why_not})"
            raise TimeoutError(f"{subject}: {why} within {limit} s") from None

    def subscribe(self, topic: str, handler: Handler) -> None:
        """Follows a topic, now and after each connection. The handler gets the events as they come.
        A refusal is logged as a warning; a topic that no record holds is a `ProtocolError`."""
        _wire.encode(_about("subscribe", topic, _wire.LARGEST_ID))
        self._topics[topic] = handler
        if self._connection is not None:
            self._ask(self._connection, "subscribe", topic)

    def unsubscribe(self, topic: str) -> None:
        """No event of the topic is handed on from now on."""
        if self._topics.pop(topic, None) and self._connection is not None:
            self._ask(self._connection, "unsubscribe", topic)

    async def _call(self, subject: str, number: int, record: bytes) -> Outcome:
        while not self._is_connected():
            await self.wait_connected()
        connection = self._connection
        assert connection is not None
        call = self._calls[number] = _Call(subject)
        sent = connection.start(record)
        try:
            await sent
            return await call.outcome
        finally:
            self._finish(connection, number, call, sent.cancelled())

    def _finish(self, connection: Connection, number: int, call: _Call, unsent: bool) -> None:
        """Where replies may have no ids, a call that was given up keeps its place; where they have
        none, its late reply would be taken for another's."""
        call.outcome.cancel()  # unless it is done
        if unsent or self._with_ids:
            self._calls.pop(number, None)
        elif call.outcome.cancelled() and self._with_ids is False:
            connection.close("a call was given up, and replies without ids could be mistaken")
        elif len([each for each in self._calls.values() if each.outcome.cancelled()]) \
                > _MOST_GIVEN_UP:
            connection.close("the server does not answer")

    def _ask(self, connection: Connection, command: str, topic: str) -> None:
        number = next(self._ids)
        record = _wire.encode(_about(command, topic, number))
        call = self._calls[number] = _Call(f"{self._name}: {command} {topic!r}")
        call.outcome.add_done_callback(self._log_refusal)
        connection.post(record)

    @staticmethod
    def _log_refusal(done: "asyncio.Future[Outcome]") -> None:
        if not done.cancelled() and done.exception() is None and done.result().status != 0:
            _log.warning("%s", done.result().error)

    # what comes

    def _received(self, message: Message) -> None:
        kind, topic = message.get("type"), message.get("topic")
        if kind == "reply":
            return self._take_reply(message)
        if kind == "event" and isinstance(topic, str):
            handler = self._topics.get(topic)
        else:
            handler = self._on_message
        if handler is not None:
            handler(message)

    def _take_reply(self, reply: Message) -> None:
        number = self._number_of(reply)
        call = self._calls.get(number) if number is not None else None
        if number is None or call is None:
            return _log.debug("%s: a reply to no call was dropped: %s", self._peer, reply)
        try:
            outcome = _outcome(reply, call.subject, call.parts)
        except ProtocolError as error:
            return _log.warning("%s: %s", self._peer, error)
        if reply.get("more") is True:
            call.parts = (*call.parts, outcome.result)
            return
        del self._calls[number]
        if not call.outcome.done():
            call.outcome.set_result(outcome)
        elif "id" not in reply and self._calls and self._connection is not None:
            self._connection.close("a reply came that may belong to either of two calls")

    def _number_of(self, reply: Message) -> Optional[int]:
        if "id" not in reply:
            self._with_ids = bool(self._with_ids)
            return None if self._with_ids else next(iter(self._calls), None)
        if not self._with_ids:
            self._with_ids = True
            self._calls = {number: call for number, call in self._calls.items()
                           if not call.outcome.cancelled()}
        return reply["id"] if type(reply["id"]) is int else None

    # connections

    async def _greet(self, connection: Connection) -> None:
        self._with_ids = None
        for topic in self._topics:
            self._ask(connection, "subscribe", topic)

    def _lost(self, reason: str) -> None:
        calls, self._calls = self._calls, {}
        for call in calls.values():
            if not call.outcome.done():
                call.outcome.set_exception(ConnectionLost(reason))
        self._call_soon(self._on_loss, reason)


def call(name: str, message: Message, limit: float,
         server_uid: Optional[int] = None) -> Outcome:
    """Calls a service, or a plain server, and waits for the answer. The limit, in seconds, is for
    all of it, connecting included. Raises as `Proxy.call` does, and `ConnectionLost` if nobody
    listens.
    """
    request = _request(message, 0, limit)
    subject = _subject(name, message)
    deadline = time.monotonic() + limit
    try:
        with Client(name, limit, server_uid) as client:
            client.timeout = max(deadline - time.monotonic(), 1e-6)
            client.send(request)
            return _wait(client, subject, deadline)
    except TimeoutError:
        raise TimeoutError(f"{subject}: no reply within {limit} s") from None
    except ConnectionLost as error:
        raise type(error)(f"{subject}: {error}") from error


def _wait(client: Client, subject: str, deadline: float) -> Outcome:
    parts: Tuple[Any, ...] = ()
    while True:
        client.timeout = max(deadline - time.monotonic(), 1e-6)
        record = client._receive()
        try:
            reply = _wire.decode(record)
            if reply.get("type") != "reply" or reply.get("id", 0) != 0:
                continue
            outcome = _outcome(reply, subject, parts)
        except ProtocolError as error:
            _log.warning("%s: a record was dropped: %s", subject, error)
            continue
        if reply.get("more") is not True:
            return outcome
        parts = (*parts, outcome.result)


def _subject(name: str, message: Message) -> str:
    command = message.get("command")
    return f"{name}: {command if isinstance(command, str) else 'call'}"


def _about(command: str, topic: str, number: int) -> Message:
    return {"id": number, "command": command, "topics": [topic]}


def _request(message: Message, number: int, limit: float) -> Message:
    if not isinstance(message, dict) or "id" in message:
        raise ProtocolError("a call is an object without an id")
    if not 0 <= limit < math.inf:
        raise ValueError(f"a limit is a number of seconds, not {limit}")
    return {"id": number, **message}


def _outcome(reply: Message, subject: str, parts: Tuple[Any, ...]) -> Outcome:
    status = _wire.status_of(reply)
    error = ""
    if status != 0:
        given = reply.get("error")
        text = given if isinstance(given, str) else (
            os.strerror(status) if status < 1000 else f"status {status}")
        error = f"{subject}: {text}"
    return Outcome(status, reply.get("result"), error, parts)
