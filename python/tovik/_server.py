"""A plain server for asyncio: statuses, messages, and notifications.

record -> session -> the notification switch, or the handler -> an answer, in its turn.
"""

import logging
import socket
from collections.abc import Awaitable as AnyAwaitable
from typing import Awaitable, Callable, Optional, Union

from . import _wire
from ._listening import Listening, Session, Turn
from ._wire import Credentials, Message, ProtocolError, WrongShape
from .admission import Check

_log = logging.getLogger("tovik")

Answer = Union[int, Message, None]
"""What a handler returns: a status to reply with, a message of its own, or nothing."""


class ServerSession(Session):
    """One client of a server."""

    _server: "Server"
    subscribed = False

    def send(self, message: Message) -> None:
        """Sends a message of the server's own, subscribed or not. Nothing if the client has gone;
        `ProtocolError` if the message cannot be sent."""
        self._post(_wire.encode(message))

    def _take(self, message: Message) -> None:
        turn = Turn()
        self._queue(turn)
        if self._connection.closed.done():
            return
        if "command" in message and "notification" in message:
            if not isinstance(message["command"], str):
                return self._refuse(WrongShape("a command that is no text"))
            if message["command"] == "set":
                return self._switch(turn, message["notification"])
        self._handle(turn, message)

    def _switch(self, turn: Turn, wanted: object) -> None:
        answered = isinstance(wanted, bool) and not self.subscribed
        self._answer(turn, _REPLY_0 if answered else b"")
        if isinstance(wanted, bool):
            self.subscribed = wanted

    def _handle(self, turn: Turn, message: Message) -> None:
        try:
            answer = self._server._handler(self, message)
            if isinstance(answer, AnyAwaitable):
                self._run(self._finish(turn, answer))
            else:
                self._reply(turn, answer)
        except Exception as error:
            self._fail(error)

    async def _finish(self, turn: Turn, awaitable: Awaitable[Answer]) -> None:
        try:
            self._reply(turn, await awaitable)
        except Exception as error:
            self._fail(error)

    def _reply(self, turn: Turn, answer: Answer) -> None:
        if answer is None or (self.subscribed and not isinstance(answer, dict)):
            return self._answer(turn, b"")
        if not isinstance(answer, dict):
            answer = {"type": "reply", "status": answer}
            _wire.status_of(answer)  # is one
        self._answer(turn, _wire.encode(answer))

    def _fail(self, error: Exception) -> None:
        """The client would wait for ever for the answer; a lost connection says it all."""
        _log.error("%s: session %d: the handler failed", self._server._peer, self.number,
                   exc_info=error)
        self.close("the handler failed")

    def _refuse(self, error: ProtocolError) -> None:
        _log.warning("%s: session %d: %s", self._server._peer, self.number, error)
        if isinstance(error, WrongShape):
            self.close("a message of the wrong shape")


_REPLY_0 = _wire.encode({"type": "reply", "status": 0})

Handler = Callable[[ServerSession, Message], Union[Answer, Awaitable[Answer]]]
"""May be a coroutine function. Messages of one client then overlap and are answered in their order,
and what runs for a client that goes is cancelled."""


class Server(Listening[ServerSession]):
    """Serves from `async with` to its end, on one event loop.

        def handle(client, message):
            return 0 if "add" in message else 1

        async with tovik.Server("adder", tovik.admission.same_user(), handle) as server:
            ...
            server.notify({"total": 5})

    It keeps to the protocol as the C++ class does: the notification switch is its own, a subscribed
    client gets no replies, and records that are not JSON are logged and dropped. Whatever a client
    sends, and a handler that raises, ends nothing but that client's connection; JSON of the wrong
    shape does. A client that does not read holds up nobody: more than `queued_records` or
    `queued_bytes` that wait end its connection, and so do more than `unanswered` messages that wait
    for their answers.
    """

    def __init__(self, name: str, admission: Check, handler: Handler, *, unanswered: int = 1000,
                 queued_records: int = 1000, queued_bytes: int = 256 * 1024,
                 on_join: Optional[Callable[[ServerSession], object]] = None,
                 on_leave: Optional[Callable[[ServerSession], object]] = None) -> None:
        """Nothing happens before `async with`. `admission` says who is served; `tovik.admission`
        has rules, and there is no default. `on_join` and `on_leave` are plain functions."""
        super().__init__(name, admission, unanswered, queued_records, queued_bytes, on_join,
                         on_leave)
        self._handler = handler

    async def __aenter__(self) -> "Server":
        await self._listen()
        return self

    def notify(self, message: Message) -> int:
        """Sends a message to every subscribed client; returns to how many. `ProtocolError` if it
        cannot be sent; nobody gets it then."""
        record = _wire.encode(message)
        subscribed = [session for session in self.sessions if session.subscribed]
        for session in subscribed:
            session._post(record)
        return len(subscribed)

    def _make_session(self, number: int, owned: socket.socket, peer: Credentials) -> ServerSession:
        return ServerSession(self, number, owned, peer)
