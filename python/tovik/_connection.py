"""A connected socket on an asyncio loop.

The loop tells when the socket can be read or written. One record is read for each such event, so
that a peer that never stops cannot hold up the loop. What is sent waits in order for room; each
record is sent whole or not at all. `close` ends everything at once: what waits gets
`ConnectionLost`.
"""

import asyncio
import collections
import logging
import socket
from typing import Any, Callable, Deque, NamedTuple, Optional, Tuple, Type

from . import _wire
from ._wire import ConnectionLost, Message, ProtocolError, Refused

_log = logging.getLogger("tovik")


class _Waiting(NamedTuple):
    """A record that waits for room, and who waits for it."""

    record: bytes
    outcome: "Optional[asyncio.Future[Any]]"
    asks: bool
    kind: object = None


class Connection:
    """Owns the socket from now on. What comes and answers nothing goes to `deliver`; what is no
    message goes to `on_garbage` or costs a log line, and the connection goes on, as records keep
    their boundaries. With `admission`, an end before anything has come is a refusal."""

    def __init__(self, owned: socket.socket, peer: str, deliver: Callable[[Message], None],
                 on_close: Callable[[], None],
                 on_garbage: Optional[Callable[[ProtocolError], None]] = None,
                 admission: bool = False) -> None:
        self._loop = asyncio.get_running_loop()
        self._socket = owned
        self._peer = peer
        self._deliver = deliver
        self._on_close = on_close
        self._on_garbage = on_garbage
        self._waiting: Deque[_Waiting] = collections.deque()
        self._asked: Optional["asyncio.Future[Any]"] = None
        self._may_be_refused = admission  # until something comes
        self.refused = False
        self.closed: "asyncio.Future[str]" = self._loop.create_future()  # the reason
        self._loop.add_reader(owned, self._read)

    async def send(self, record: bytes) -> None:
        """Returns once the kernel has the record. Cancelled before that, it is not sent."""
        await self.start(record)

    def start(self, record: bytes) -> "asyncio.Future[Any]":
        """Sends the record, now or when there is room; done once the kernel has it."""
        return self._post(record, asks=False)

    async def ask(self, record: bytes) -> Message:
        """Sends the record; what comes next is its answer. One at a time.

        Cancelled once the record is sent, it closes the connection: the answer would be taken for
        the next one's. So does an answer that is no message.
        """
        outcome = self._post(record, asks=True)
        try:
            answer: Message = await outcome
            return answer
        except asyncio.CancelledError:
            if self._asked is outcome:
                self.close("a call was given up before its answer came")
            raise

    def post(self, record: bytes, kind: object = None) -> None:
        """Sends the record, now or when there is room; nobody waits for that."""
        self._add(_Waiting(record, None, False, kind))

    def forget(self, kind: object) -> None:
        """Drops the posted records of that kind that still wait."""
        self._waiting = collections.deque(w for w in self._waiting if w.kind != kind)

    @property
    def queued(self) -> Tuple[int, int]:
        """The records that wait for room, and their bytes."""
        return len(self._waiting), sum(len(waiting.record) for waiting in self._waiting)

    def close(self, reason: str, kind: Type[ConnectionLost] = ConnectionLost) -> None:
        """Harmless on a closed one. What waits gets an error of that kind."""
        if self.closed.done():
            return
        self._loop.remove_reader(self._socket)
        self._loop.remove_writer(self._socket)
        self._socket.close()
        self._fail_waiting(reason, kind)
        if self._asked is not None and not self._asked.done():
            self._asked.set_exception(kind(reason))
        self.closed.set_result(reason)
        self._on_close()

    def _post(self, record: bytes, asks: bool) -> "asyncio.Future[Any]":
        outcome = self._loop.create_future()
        self._add(_Waiting(record, outcome, asks))
        return outcome

    def _add(self, waiting: _Waiting) -> None:
        if self.closed.done():
            raise (Refused if self.refused else ConnectionLost)(self.closed.result())
        self._waiting.append(waiting)
        if len(self._waiting) == 1:
            self._write()

    def _write(self) -> None:
        while self._waiting:
            try:
                self._write_first()
            except BlockingIOError:
                return self._loop.add_writer(self._socket, self._write)
            except ConnectionError as error:  # what has come already is still read, up to the end
                if self._may_be_refused and not _wire.peek(self._socket):
                    return self._end()
                self._fail_waiting(str(error.strerror), ConnectionLost)
            except OSError as error:  # a posted record, which cannot be left out
                return self.close(str(error.strerror))
            else:
                self._waiting.popleft()
        self._loop.remove_writer(self._socket)

    def _write_first(self) -> None:
        record, outcome, asks, _kind = self._waiting[0]
        if outcome is not None and outcome.done():  # cancelled
            return
        try:
            self._socket.send(record)
        except (BlockingIOError, ConnectionError):
            raise
        except OSError as error:  # too large for the socket, or no memory: the next one may pass
            if outcome is None:
                raise
            outcome.set_exception(error)
        else:
            if asks:
                self._asked = outcome
            elif outcome is not None:
                outcome.set_result(None)

    def _fail_waiting(self, reason: str, kind: Type[ConnectionLost]) -> None:
        for waiting in self._waiting:
            if waiting.outcome is not None and not waiting.outcome.done():
                waiting.outcome.set_exception(kind(reason))
        self._waiting.clear()

    def _read(self) -> None:
        try:
            record = _wire.receive(self._socket)
        except BlockingIOError:
            return
        except OSError as error:
            return self.close(str(error.strerror))
        if not record:
            return self._end()
        self._may_be_refused = False
        try:
            self._receive(_wire.decode(record))
        except ProtocolError as error:
            self._refuse(error)

    def _end(self) -> None:
        self.refused = self._may_be_refused
        if self.refused:
            return self.close(_wire.REFUSED, Refused)
        self.close("the peer has closed the connection")

    def _receive(self, message: Message) -> None:
        asked, self._asked = self._asked, None
        if asked is None:
            self._deliver(message)
        elif not asked.done():
            asked.set_result(message)

    def _refuse(self, error: ProtocolError) -> None:
        if self._on_garbage is not None:
            return self._on_garbage(error)
        _log.warning("%s: a record was dropped: %s", self._peer, error)
        asked, self._asked = self._asked, None
        if asked is not None:
            if not asked.done():
                asked.set_exception(error)
            self.close("an answer that is no message")
