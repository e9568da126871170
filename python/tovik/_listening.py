"""What servers share: listen -> admit -> a session, until its end or the server's."""

import asyncio
import collections
import itertools
import logging
import socket
from types import TracebackType
from typing import (Any, Callable, Coroutine, Deque, Generic, Optional, Set, Tuple, Type, TypeVar)

from . import _wire
from ._connection import Connection
from ._wire import Credentials, Message, ProtocolError
from .admission import Check, Rule

_log = logging.getLogger("tovik")

_BACKLOG = 5
_ACCEPT_PAUSE = 0.1  # seconds after an accept that failed, for want of descriptors say


class Turn:
    """A message whose answer has a place among those of its session."""

    record: Optional[bytes] = None  # the answer, once there is one; none if it is empty


class Session:
    """One client, from its admission to the end of its connection."""

    def __init__(self, server: "Listening[Any]", number: int, owned: socket.socket,
                 peer: Credentials) -> None:
        self.number = number  # counted by the server, from 1
        self.peer = peer
        self.data: Any = None  # the application's
        self.tasks: Set["asyncio.Task[None]"] = set()
        self._server = server
        self._turns: Deque[Turn] = collections.deque()
        self._connection = Connection(owned, f"session {number}, pid {peer.pid}", self._take,
                                      self._ended, self._refuse)

    @property
    def queued(self) -> Tuple[int, int]:
        """The records that wait because the client does not read, and their bytes."""
        return self._connection.queued

    def close(self, reason: str = "closed by the server") -> None:
        """Ends the connection. What waits is dropped. Harmless on a closed one."""
        self._connection.close(reason)

    # for derived classes

    def _take(self, message: Message) -> None:
        raise NotImplementedError

    def _refuse(self, error: ProtocolError) -> None:
        """A record that is no message."""
        raise NotImplementedError

    def _run(self, coroutine: Coroutine[Any, Any, None]) -> None:
        """Until it is done or the client goes."""
        task = asyncio.get_running_loop().create_task(coroutine)
        self.tasks.add(task)
        task.add_done_callback(self.tasks.discard)

    def _post(self, record: bytes, kind: object = None) -> None:
        """Within the server's bound on what waits; more ends the session."""
        if self._connection.closed.done():
            return
        self._connection.post(record, kind)
        records, size = self._connection.queued
        if records > self._server._queued_records or size > self._server._queued_bytes:
            self.close("it does not read")

    def _queue(self, turn: Turn) -> None:
        """Answers go out in the order of the messages; too many that wait for one end the
        session."""
        self._turns.append(turn)
        if len(self._turns) > self._server._most_turns:
            self.close("it does not wait for its answers")

    def _answer(self, turn: Turn, record: bytes) -> None:
        turn.record = record
        while self._turns and self._turns[0].record is not None:
            due = self._turns.popleft().record
            if due:
                self._post(due)

    def _ended(self) -> None:
        for task in list(self.tasks):
            task.cancel()
        self._server._leave(self)


SessionType = TypeVar("SessionType", bound=Session)


class Listening(Generic[SessionType]):
    """Listens from `async with` to its end, on one event loop. Derived classes make sessions."""

    def __init__(self, name: str, admission: Check, most_turns: int, queued_records: int,
                 queued_bytes: int, on_join: Optional[Callable[[SessionType], object]],
                 on_leave: Optional[Callable[[SessionType], object]]) -> None:
        self._address = _wire.address(name)
        self._name = name
        self._peer = repr(name)  # as logs can show it, whatever characters it has
        self._admission = admission if isinstance(admission, Rule) else Rule(admission)
        self._most_turns = most_turns
        self._queued_records = queued_records
        self._queued_bytes = queued_bytes
        self._on_join = on_join
        self._on_leave = on_leave
        self._numbers = itertools.count(1)
        self.sessions: Set[SessionType] = set()

    def connections_of(self, uid: int) -> int:
        """How many connections the user has."""
        return sum(session.peer.uid == uid for session in self.sessions)

    async def _listen(self) -> None:
        self._loop = asyncio.get_running_loop()
        self._listener = _wire.new_socket()
        try:
            self._listener.setblocking(False)
            self._listener.bind(self._address)
            self._listener.listen(_BACKLOG)
        except OSError as error:
            self._listener.close()
            raise OSError(error.errno, error.strerror, self._name) from error
        self._loop.add_reader(self._listener, self._accept)

    async def __aexit__(self, kind: Optional[Type[BaseException]],
                        value: Optional[BaseException],
                        traceback: Optional[TracebackType]) -> None:
        self._loop.remove_reader(self._listener)
        self._listener.close()
        tasks = [task for session in self.sessions for task in session.tasks]
        for session in list(self.sessions):
            session.close("the server has ended")
        if tasks:
            await asyncio.wait(tasks)

    # for derived classes

    def _make_session(self, number: int, owned: socket.socket, peer: Credentials) -> SessionType:
        raise NotImplementedError

    def _leave(self, session: SessionType) -> None:
        self.sessions.discard(session)
        _log.info("%s: session %d ended: %s", self._peer, session.number,
                  session._connection.closed.result())
        if self._on_leave is not None:
            self._loop.call_soon(self._on_leave, session)

    # admission

    def _accept(self) -> None:
        try:
            client, _address = self._listener.accept()
        except (BlockingIOError, ConnectionError):
            return
        except OSError as error:
            _log.error("%s: cannot accept a client: %s", self._peer, error)
            self._loop.remove_reader(self._listener)
            self._loop.call_later(_ACCEPT_PAUSE, self._listen_again)
            return
        try:
            self._admit(client)
        except BaseException:
            client.close()
            raise

    def _listen_again(self) -> None:
        if self._listener.fileno() >= 0:
            self._loop.add_reader(self._listener, self._accept)

    def _admit(self, client: socket.socket) -> None:
        peer = _wire.credentials(client)
        if not self._admission(peer):
            _log.warning("%s: refused %s", self._peer, peer)
            return client.close()
        client.setblocking(False)
        session = self._make_session(next(self._numbers), client, peer)
        self.sessions.add(session)
        _log.info("%s: session %d: %s", self._peer, session.number, peer)
        if self._on_join is not None:
            self._loop.call_soon(self._on_join, session)  # before its first record is read
