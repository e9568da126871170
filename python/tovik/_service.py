"""A service for asyncio: commands that give values or fail with a reason, and topics to follow.

record -> session -> shape -> the convention's own commands, or a handler -> reply. docs/wire.md has
the convention.
"""

import errno
import inspect
import logging
import socket
from typing import (Any, Awaitable, Callable, Dict, Iterator, Mapping, NamedTuple, Optional, Set,
                    Tuple, Union)

from . import _wire
from ._listening import Listening, Session, Turn
from ._wire import Credentials, Message, ProtocolError, TooLong, TovikError
from .admission import Check

_log = logging.getLogger("tovik")

_LONGEST_ERROR = 500  # characters, each of which may take six bytes
_LONGEST_PART = 3900  # of a description; leaves room for what stands around it in a reply
_OWN = ("subscribe", "unsubscribe", "describe")
_TYPES = {bool: "boolean", int: "integer", float: "number", str: "string", list: "array",
          dict: "object", object: "any"}


class Refusal(TovikError):
    """Raised in a handler, it answers the call with this status and text.

    The status is an errno number where one fits, or the application's own from 1000 on.
    """

    def __init__(self, status: int, text: str) -> None:
        super().__init__(text)
        self.status = status


class Argument(NamedTuple):
    """What a command takes: bool, int, float, str, list, dict, or object for any JSON."""

    type: type
    description: str
    required: bool = True

    def accepts(self, value: object) -> bool:
        if self.type in (int, float) and isinstance(value, bool):
            return False
        return isinstance(value, (int, float) if self.type is float else self.type)


class ServiceSession(Session):
    """One client of a service."""

    _server: "Service"

    def __init__(self, service: "Service", number: int, owned: socket.socket,
                 peer: Credentials) -> None:
        super().__init__(service, number, owned, peer)
        self.follows_all = False
        self.ids: Set[int] = set()

    def _take(self, message: Message) -> None:
        self._server._dispatch(_Call(self, message))

    def _refuse(self, error: ProtocolError) -> None:
        self._server._refuse(_Call(self, {}), error)

    def send_event(self, topic: "_Topic", record: bytes) -> None:
        if topic.latest:
            self._connection.forget(topic)
        self._post(record, topic)

    def enter(self, call: "_Call") -> None:
        if call.id is None:
            self._queue(call)

    def in_flight(self) -> int:
        return len(self.ids) + len(self._turns)

    def answer(self, call: "_Call", record: bytes) -> None:
        """Without an id in its turn, and not at all while the client gets all events."""
        if call.id is not None:
            return self._post(record)
        self._answer(call, b"" if self.follows_all else record)


class _Call(Turn):
    """A request until it is answered."""

    def __init__(self, session: ServiceSession, message: Message) -> None:
        self.session = session
        self.message = message
        given = message.get("id")
        valid = type(given) is int and 0 <= given <= _wire.LARGEST_ID
        self.id: Optional[int] = given if valid else None
        self.answered = False
        session.enter(self)

    def reply(self, status: int, result: object = None, error: str = "",
              more: bool = False) -> None:
        if self.answered:
            return
        reply: Message = {"type": "reply", "status": status}
        for name, value, given in (("id", self.id, self.id is not None),
                                   ("result", result, result is not None),
                                   ("error", error, bool(error)), ("more", True, more)):
            if given:
                reply[name] = value
        record = _wire.encode(reply)  # which may raise: the call is still open then
        self.answered = not more
        if self.answered and self.id is not None:
            self.session.ids.discard(self.id)
        self.session.answer(self, record)


class Request:
    """A call of a command, as its handler gets it."""

    def __init__(self, call: _Call) -> None:
        self._call = call

    @property
    def session(self) -> ServiceSession:
        """Whose call it is."""
        return self._call.session

    @property
    def message(self) -> Message:
        """The whole message as it came."""
        return self._call.message

    def __getitem__(self, name: str) -> Any:
        """An argument. A missing one that was not declared as required answers with 22."""
        if name not in self._call.message:
            raise Refusal(errno.EINVAL, f"argument '{name}' is missing")
        return self._call.message[name]

    def get(self, name: str, otherwise: Any = None) -> Any:
        """An argument that may be missing."""
        return self._call.message.get(name, otherwise)

    def more(self, part: object) -> None:
        """Sends a part of the result; what the handler returns is the last one."""
        if self._call.id is None:
            raise Refusal(errno.EMSGSIZE, "the answer takes several records: give the call an id")
        self._call.reply(0, part, more=True)


Handler = Callable[[Request], Union[object, Awaitable[object]]]
"""Returns the result, or nothing. May be a coroutine function: calls then overlap, and one whose
client goes is cancelled."""


class _Command(NamedTuple):
    description: str
    arguments: Mapping[str, Argument]
    handler: Handler


class _Topic:
    def __init__(self, description: str, keeps_last: bool, latest: bool) -> None:
        self.description = description
        self.keeps_last = keeps_last
        self.latest = latest
        self.last: Optional[Message] = None
        self.followers: Set[ServiceSession] = set()


class Service(Listening[ServiceSession]):
    """Serves from `async with` to its end, on one event loop.

        async with tovik.Service("lamp", tovik.admission.same_user()) as service:
            @service.command("switch", "Switches the lamp.", on=tovik.Argument(bool, "To on."))
            def switch(request):
                service.publish("state", {"on": request["on"]})

    Whatever a client sends is answered or logged, and ends nothing but its own session. What a
    client makes the service keep is bounded: `calls` in flight (more are answered with 16), and
    `queued_records` and `queued_bytes` that wait because it does not read (more end its session).
    """

    def __init__(self, name: str, admission: Check, *,
                 description: str = "", calls: int = 16, queued_records: int = 1000,
                 queued_bytes: int = 256 * 1024,
                 on_join: Optional[Callable[[ServiceSession], object]] = None,
                 on_leave: Optional[Callable[[ServiceSession], object]] = None) -> None:
        """Nothing happens before `async with`. `admission` says who is served; `tovik.admission`
        has rules, and there is no default. `on_join` and `on_leave` are plain functions."""
        super().__init__(name, admission, 2 * calls + 1, queued_records, queued_bytes, on_join,
                         on_leave)
        self._description = description
        self._calls = calls
        self._commands: Dict[str, _Command] = {}
        self._topics: Dict[str, _Topic] = {}

    def command(self, name: str, description: str,
                **arguments: Argument) -> Callable[[Handler], Handler]:
        """Decorates a handler. The arguments are checked before it runs."""
        if name in self._commands or name in _OWN:
            raise ValueError(f"command {name!r} is taken")

        def add(handler: Handler) -> Handler:
            self._commands[name] = _Command(description, arguments, handler)
            return handler
        return add

    def topic(self, name: str, description: str, *, keeps_last: bool = False,
              latest: bool = False) -> None:
        """Adds a topic. With `keeps_last`, a new follower gets the last event at once. With
        `latest`, a newer event replaces one that waits for a slow reader."""
        if name in self._topics:
            raise ValueError(f"topic {name!r} is taken")
        self._topics[name] = _Topic(description, keeps_last, latest)

    def publish(self, name: str, message: Message) -> None:
        """Sends an event to all who follow the topic. Raises `KeyError` for an unknown topic, and
        `ProtocolError` if the message cannot be sent; nobody gets it then."""
        topic = self._topics[name]
        taken = {"type", "topic", "snapshot"} & message.keys()
        if taken:
            raise ProtocolError(f"an event's own members cannot be named {sorted(taken)}")
        _wire.encode({"type": "event", "topic": name, "snapshot": True, **message})  # fits later
        record = _wire.encode({"type": "event", "topic": name, **message})
        if topic.keeps_last:
            topic.last = dict(message)
        for session in [each for each in self.sessions
                        if each.follows_all or each in topic.followers]:
            session.send_event(topic, record)

    async def __aenter__(self) -> "Service":
        await self._listen()
        return self

    def _make_session(self, number: int, owned: socket.socket, peer: Credentials) -> ServiceSession:
        return ServiceSession(self, number, owned, peer)

    def _leave(self, session: ServiceSession) -> None:
        for topic in self._topics.values():
            topic.followers.discard(session)
        super()._leave(session)

    # requests

    def _refuse(self, call: _Call, error: ProtocolError) -> None:
        _log.warning("%s: session %d: %s", self._peer, call.session.number, error)
        call.reply(errno.EMSGSIZE if isinstance(error, TooLong) else errno.EINVAL, error=str(error))

    def _dispatch(self, call: _Call) -> None:
        try:
            self._carry_out(call)
        except Refusal as refusal:
            call.reply(refusal.status, error=str(refusal))

    def _carry_out(self, call: _Call) -> None:
        message = call.message
        if call.id is None and "id" in message:
            raise Refusal(errno.EINVAL, f"an id is an integer from 0 to {_wire.LARGEST_ID}")
        if call.id in call.session.ids:
            raise Refusal(errno.EINVAL, "this id is in use by a call in flight")
        name = message.get("command")
        if not isinstance(name, str):
            raise Refusal(errno.EINVAL, "a request has a command, which is a text")
        if name == "set" and "notification" in message:
            self._switch(call)
        elif name == "describe":
            self._describe(call)
        elif name in _OWN:
            self._change_topics(call, name == "subscribe")
        else:
            self._run(call, name)

    def _run(self, call: _Call, name: str) -> None:
        command = self._commands.get(name)
        if command is None:
            raise Refusal(errno.ENOSYS, f"no command {name!r:.80}")
        for argument, wanted in command.arguments.items():
            if argument not in call.message:
                if wanted.required:
                    raise Refusal(errno.EINVAL, f"argument '{argument}' is missing")
            elif not wanted.accepts(call.message[argument]):
                raise Refusal(errno.EINVAL, f"argument '{argument}' is no {_TYPES[wanted.type]}")
        session = call.session
        if session.in_flight() - (call.id is None) >= self._calls:
            raise Refusal(errno.EBUSY, "too many calls in flight")
        if call.id is not None:
            session.ids.add(call.id)
        self._handle(call, command.handler)

    def _handle(self, call: _Call, handler: Handler) -> None:
        try:
            result = handler(Request(call))
        except Exception as error:
            return self._fail(call, error)
        if not inspect.isawaitable(result):
            return self._succeed(call, result)
        call.session._run(self._finish(call, result))

    async def _finish(self, call: _Call, awaitable: Awaitable[object]) -> None:
        try:
            result = await awaitable
        except Exception as error:
            self._fail(call, error)
        else:
            self._succeed(call, result)

    def _succeed(self, call: _Call, result: object) -> None:
        try:
            call.reply(0, result)
        except ProtocolError as error:
            self._fail(call, error)

    def _fail(self, call: _Call, error: Exception) -> None:
        if isinstance(error, Refusal):
            status, text = error.status, str(error)[:_LONGEST_ERROR]
        else:
            _log.error("%s: %r failed", self._peer, call.message.get("command"), exc_info=error)
            status = errno.EMSGSIZE if isinstance(error, TooLong) else errno.EIO
            text = "the answer is too long" if isinstance(error, TooLong) else "the service failed"
        call.reply(status, error=text.encode("utf-8", "replace").decode())

    # the convention's own commands

    def _switch(self, call: _Call) -> None:
        wanted = call.message["notification"]
        if isinstance(wanted, bool):
            call.reply(0)  # before the change: a client that gets all events gets no replies
            call.session.follows_all = wanted
        elif call.id is not None:
            raise Refusal(errno.EINVAL, "argument 'notification' is no boolean")
        else:  # no reply and no change, as with any server
            call.session.answer(call, b"")

    def _change_topics(self, call: _Call, follow: bool) -> None:
        names = call.message.get("topics")
        if not isinstance(names, list) or not all(isinstance(name, str) for name in names):
            raise Refusal(errno.EINVAL, "argument 'topics' is missing or no array of texts")
        for name in names:
            if name not in self._topics:
                raise Refusal(errno.EINVAL, f"no topic {name!r:.80}")
        call.reply(0)
        for name in dict.fromkeys(names or self._topics):
            if follow:
                self._follow(call.session, name)
            else:
                self._topics[name].followers.discard(call.session)

    def _follow(self, session: ServiceSession, name: str) -> None:
        topic = self._topics[name]
        topic.followers.add(session)
        if topic.last is not None:
            session.send_event(topic, _wire.encode(
                {"type": "event", "topic": name, "snapshot": True, **topic.last}))

    def _describe(self, call: _Call) -> None:
        part: Dict[str, Any] = {"name": self._name, "description": self._description}
        for group, entry in self._entries():
            longer = {**part, group: [*part.get(group, []), entry]}
            if len(_wire.encode_any(longer)) > _LONGEST_PART:
                Request(call).more(part)
                longer = {group: [entry]}
            part = longer
        call.reply(0, part)

    def _entries(self) -> Iterator[Tuple[str, Message]]:
        for name, command in sorted(self._commands.items()):
            yield "commands", {
                "name": name, "description": command.description, "arguments": [
                    {"name": each, "type": _TYPES[argument.type], "required": argument.required,
                     "description": argument.description}
                    for each, argument in command.arguments.items()]}
        for name, topic in sorted(self._topics.items()):
            yield "topics", {"name": name, "description": topic.description,
                             "keepsLast": topic.keeps_last}
