"""The client for asyncio."""

import asyncio
import contextlib
import socket
from types import TracebackType
from typing import AsyncIterator, Callable, Optional, Type

from . import _wire
from ._wire import ConnectionLost, Message, ProtocolError

_RETRY = 0.005  # seconds between attempts while the server has no room for another client


class AsyncClient:
    """A client that connects by itself, and again `reconnect` seconds after each loss.

    Used with `async with`, on one event loop. With `subscribe`, it subscribes after each connect;
    iterating over it yields the messages that come, across reconnects. What was sent and not
    answered before a loss is not sent again: the call raises `ConnectionLost`, and the application
    decides. Notifications that the server made meanwhile are missed; `on_connect` is the place to
    fetch the state anew, by another client, as a subscribed one gets no replies. `on_connect` and
    `on_loss` are plain functions that the loop calls.

    Messages wait in a queue without a bound until they are iterated over.
    """

    def __init__(self, name: str, *, reconnect: float = 1.0, subscribe: bool = False,
                 server_uid: Optional[int] = None,
                 on_connect: Optional[Callable[[], None]] = None,
                 on_loss: Optional[Callable[[], None]] = None) -> None:
        """Nothing happens before `async with`. With `server_uid`, connects only to a server of that
        user."""
        self._address = _wire.address(name)
        self._reconnect = reconnect
        self._subscribe = subscribe
        self._server_uid = server_uid
        self._on_connect = on_connect
        self._on_loss = on_loss
        self._socket: Optional[socket.socket] = None
        self._reply: Optional["asyncio.Future[Message]"] = None

    async def __aenter__(self) -> "AsyncClient":
        self._connected = asyncio.Event()
        self._messages: "asyncio.Queue[Message]" = asyncio.Queue()
        self._call_lock = asyncio.Lock()
        self._send_lock = asyncio.Lock()
        self._task = asyncio.ensure_future(self._stay_connected())
        return self

    async def __aexit__(self, kind: Optional[Type[BaseException]],
                        value: Optional[BaseException],
                        traceback: Optional[TracebackType]) -> None:
        self._task.cancel()
        with contextlib.suppress(asyncio.CancelledError):
            await self._task

    async def wait_connected(self) -> None:
        """Returns once there is a connection, subscribed if that is asked for."""
        await self._connected.wait()

    async def send(self, message: Message) -> None:
        """Sends a message; raises `ConnectionLost` while there is no connection."""
        record = _wire.encode(message)
        connection = self._socket
        if connection is None or not self._connected.is_set():
            raise ConnectionLost("not connected")
        await self._write(connection, record)

    async def call(self, message: Message) -> int:
        """Sends a message and waits for the reply's status. Calls wait for one another.

        A call that is cancelled (by `asyncio.wait_for`, say) ends the connection, as its answer
        would be taken for the next one's; the client then connects anew.
        """
        if self._subscribe:
            raise ProtocolError("a subscribed connection gets no replies: use another client")
        async with self._call_lock:
            reply: "asyncio.Future[Message]" = asyncio.get_running_loop().create_future()
            self._reply = reply
            try:
                await self.send(message)
                return _wire.status_of(await reply)
            except (asyncio.CancelledError, ProtocolError):
                self._end()
                raise
            finally:
                self._reply = None

    def __aiter__(self) -> AsyncIterator[Message]:
        """The messages that are no answer to a call, without end."""
        return self._iterate()

    async def _iterate(self) -> AsyncIterator[Message]:
        while True:
            yield await self._messages.get()

    # connect -> (subscribe) -> read until the loss -> wait -> connect

    async def _stay_connected(self) -> None:
        while True:
            try:
                with contextlib.closing(_wire.new_socket()) as connection:
                    await self._connect(connection)
                    await self._serve(connection)
            except (OSError, ProtocolError):
                pass  # a server that is gone, or is none: the next attempt will tell
            await asyncio.sleep(self._reconnect)

    async def _connect(self, connection: socket.socket) -> None:
        connection.setblocking(False)
        while True:
            try:
                connection.connect(self._address)
                break
            except BlockingIOError:  # the backlog is full, and nothing reports when it is not
                await asyncio.sleep(_RETRY)
        if self._server_uid is not None:
            _wire.require_server(connection, self._server_uid)
        if self._subscribe:
            await self._write(connection, _wire.encode(_wire.SUBSCRIBE))
            _wire.status_of(await self._read(connection))

    async def _serve(self, connection: socket.socket) -> None:
        self._socket = connection
        self._connected.set()
        try:
            self._call_soon(self._on_connect)
            while True:
                self._deliver(await self._read(connection))
        finally:
            self._socket = None
            self._connected.clear()
            if self._reply is not None and not self._reply.done():
                self._reply.set_exception(ConnectionLost("the connection was lost"))
            self._call_soon(self._on_loss)

    @staticmethod
    def _call_soon(function: Optional[Callable[[], None]]) -> None:
        """What it raises goes to the loop's exception handler, and ends nothing here."""
        if function is not None:
            asyncio.get_running_loop().call_soon(function)

    def _deliver(self, message: Message) -> None:
        if self._reply is not None and not self._reply.done():
            self._reply.set_result(message)
        else:
            self._messages.put_nowait(message)

    def _end(self) -> None:
        """The reader then sees the end of the connection."""
        if self._socket is not None:
            with contextlib.suppress(OSError):
                self._socket.shutdown(socket.SHUT_RDWR)

    async def _read(self, connection: socket.socket) -> Message:
        record = await asyncio.get_running_loop().sock_recv(connection, _wire.RECEIVE_SIZE)
        if not record:
            raise ConnectionLost("the server has closed the connection")
        return _wire.decode(record)

    async def _write(self, connection: socket.socket, record: bytes) -> None:
        """One record at a time: the loop remembers only one writer for a socket."""
        async with self._send_lock:
            try:
                await asyncio.get_running_loop().sock_sendall(connection, record)
            except OSError as error:
                raise ConnectionLost(error.strerror) from error
