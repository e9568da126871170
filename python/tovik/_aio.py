"""The client for asyncio."""

import asyncio
import contextlib
import logging
import math
import socket
from types import TracebackType
from typing import AsyncIterator, Callable, Optional, Type

from . import _wire
from ._connection import Connection
from ._wire import ConnectionLost, Message, ProtocolError

_RETRY = 0.005  # seconds between attempts while the server has no room for another client
_SHORTEST_RECONNECT = 0.001

_log = logging.getLogger("tovik")


class AsyncClient:
    """A client that connects by itself, and again `reconnect` seconds after each loss.

    Used with `async with`, on one event loop. With `subscribe`, it subscribes after each connect;
    iterating over it yields the messages that come, across reconnects, until the block is left.
    What was sent and not answered before a loss is not sent again: the call raises
    `ConnectionLost`, and the application decides. Notifications that the server made meanwhile are
    missed; `on_connect` is the place to fetch the state again, by another client, as a subscribed
    one gets no replies. `on_connect` and `on_loss` are plain functions that the loop calls.

    Messages wait in a queue without a bound until they are iterated over. A record that is no
    message is dropped. The logger `tovik` gets that as a warning, and each connection, loss and
    failed attempt as information. Leaving the block ends whatever waits, with `ConnectionLost`.
    Take the last reply before, as with `Client.close`: records that were sent may be lost.
    """

    def __init__(self, name: str, *, reconnect: float = 1.0, subscribe: bool = False,
                 server_uid: Optional[int] = None,
                 on_connect: Optional[Callable[[], None]] = None,
                 on_loss: Optional[Callable[[], None]] = None) -> None:
        """Nothing happens before `async with`. `reconnect` is at least 0.001. With `server_uid`,
        connects only to a server of that user."""
        if not _SHORTEST_RECONNECT <= reconnect < math.inf:
            raise ValueError(f"reconnect is at least {_SHORTEST_RECONNECT} s, not {reconnect}")
        self._address = _wire.address(name)
        self._peer = repr(name)  # as logs can show it, whatever characters it has
        self._reconnect = reconnect
        self._subscribe = subscribe
        self._server_uid = server_uid
        self._on_connect = on_connect
        self._on_loss = on_loss
        self._connection: Optional[Connection] = None
        self._task: Optional["asyncio.Task[None]"] = None

    async def __aenter__(self) -> "AsyncClient":
        self._connected = asyncio.Event()  # or left
        self._messages: "asyncio.Queue[Optional[Message]]" = asyncio.Queue()  # None is the end
        self._call_lock = asyncio.Lock()
        self._task = asyncio.ensure_future(self._stay_connected())
        self._task.add_done_callback(self._end)
        return self

    async def __aexit__(self, kind: Optional[Type[BaseException]],
                        value: Optional[BaseException],
                        traceback: Optional[TracebackType]) -> None:
        task = self._entered()
        task.cancel()
        await asyncio.wait({task})

    def _end(self, _task: "asyncio.Task[None]") -> None:
        self._messages.put_nowait(None)
        self._connected.set()

    async def wait_connected(self) -> None:
        """Returns once there is a connection, subscribed if that is asked for."""
        task = self._entered()
        await self._connected.wait()
        if task.done():
            raise ConnectionLost("the client was left")

    async def send(self, message: Message) -> None:
        """Sends a message; raises `ConnectionLost` while there is no connection.

        Waits for room where the server reads slowly. Cancelled meanwhile, it sends nothing.
        """
        record = _wire.encode(message)
        await self._current().send(record)

    async def call(self, message: Message) -> int:
        """Sends a message and waits for the reply's status. Calls wait for one another.

        A call that is cancelled (by `asyncio.wait_for`, say) once it has been sent ends the
        connection, as its answer would be taken for the next one's; the client then connects
        again. A message that cannot be sent ends nothing.
        """
        if self._subscribe:
            raise ProtocolError("a subscribed connection gets no replies: use another client")
        record = _wire.encode(message)
        self._entered()
        async with self._call_lock:
            connection = self._current()
            answer = await connection.ask(record)
            try:
                return _wire.status_of(answer)
            except ProtocolError as error:
                connection.close(str(error))
                raise

    def __aiter__(self) -> AsyncIterator[Message]:
        """The messages that are no answer to a call, until the block is left."""
        return self._iterate()

    async def _iterate(self) -> AsyncIterator[Message]:
        self._entered()
        while True:
            message = await self._messages.get()
            if message is None:
                self._messages.put_nowait(None)  # another task may iterate too
                return
            yield message

    def _entered(self) -> "asyncio.Task[None]":
        if self._task is None:
            raise ConnectionLost("not connected: `async with` connects")
        return self._task

    def _current(self) -> Connection:
        if self._connection is None:
            raise ConnectionLost("not connected")
        return self._connection

    # connect -> (subscribe) -> until the loss -> wait -> connect

    async def _stay_connected(self) -> None:
        while True:
            try:
                with contextlib.closing(_wire.new_socket()) as unconnected:
                    await self._connect(unconnected)
                    await self._serve(unconnected)
            except (OSError, ProtocolError) as error:
                _log.info("%s: no connection: %s", self._peer, error)
            await asyncio.sleep(self._reconnect)

    async def _connect(self, unconnected: socket.socket) -> None:
        unconnected.setblocking(False)
        if not self._connects(unconnected):
            _log.info("%s: waiting, as the server's backlog is full", self._peer)
            while not self._connects(unconnected):
                await asyncio.sleep(_RETRY)  # nothing reports when there is room
        if self._server_uid is not None:
            _wire.require_server(unconnected, self._server_uid)

    def _connects(self, unconnected: socket.socket) -> bool:
        with contextlib.suppress(BlockingIOError):
            unconnected.connect(self._address)
            return True
        return False

    async def _serve(self, connected: socket.socket) -> None:
        connection = Connection(connected, self._peer, self._messages.put_nowait,
                                self._connected.clear)
        try:
            if self._subscribe:
                _wire.status_of(await connection.ask(_wire.encode(_wire.SUBSCRIBE)))
            await self._lend(connection)
        finally:
            connection.close("the client was left")

    async def _lend(self, connection: Connection) -> None:
        """To those who send and call, until it is lost."""
        _log.info("%s: connected", self._peer)
        self._connection = connection
        self._connected.set()
        try:
            self._call_soon(self._on_connect)
            _log.info("%s: connection lost: %s", self._peer,
                      await asyncio.shield(connection.closed))
        finally:
            self._connection = None
            self._call_soon(self._on_loss)

    @staticmethod
    def _call_soon(function: Optional[Callable[[], None]]) -> None:
        """What it raises goes to the loop's exception handler, and ends nothing here."""
        if function is not None:
            asyncio.get_running_loop().call_soon(function)
