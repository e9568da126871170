"""What the clients for asyncio share: connect -> greet -> until the loss -> wait -> connect."""

import asyncio
import contextlib
import logging
import math
import random
import socket
from types import TracebackType
from typing import Callable, Collection, List, Optional, Type

from . import _wire
from ._connection import Connection
from ._wire import ConnectionLost, Message, ProtocolError, Refused

_RETRY = 0.005  # seconds between attempts while the server has no room for another client
_SHORTEST_RECONNECT = 0.001

_log = logging.getLogger("tovik")


class Reconnecting:
    """Connects from `async with` to its end. Derived classes say what to do with a connection."""

    def __init__(self, name: str, reconnect: float, jitter: float,
                 server_uids: Optional[Collection[int]],
                 on_connect: Optional[Callable[[], object]]) -> None:
        if not _SHORTEST_RECONNECT <= reconnect < math.inf:
            raise ValueError(f"reconnect is at least {_SHORTEST_RECONNECT} s, not {reconnect}")
        if not 0 <= jitter < math.inf:
            raise ValueError(f"jitter is at least 0 s, not {jitter}")
        self._address = _wire.address(name)
        self._peer = repr(name)  # as logs can show it, whatever characters it has
        self._reconnect = reconnect
        self._jitter = jitter
        self._server_uids = server_uids
        self._on_connect = on_connect
        self._why_not = "not tried yet"  # connected
        self._warned = ""  # of a refusal, until something else happens
        self._connection: Optional[Connection] = None
        self._task: Optional["asyncio.Task[None]"] = None

    async def _enter(self) -> None:
        self._waiting: List["asyncio.Future[None]"] = []  # for a connection
        self._task = asyncio.ensure_future(self._stay_connected())
        self._task.add_done_callback(lambda _task: self._left())

    async def __aexit__(self, kind: Optional[Type[BaseException]],
                        value: Optional[BaseException],
                        traceback: Optional[TracebackType]) -> None:
        task = self._entered()
        task.cancel()
        await asyncio.wait({task})

    async def wait_connected(self) -> None:
        """Returns once there is a connection, subscribed if that is asked for.

        Raises `Refused` at the next attempt that meets the server of another user, or a
        subscription that the server refuses; a client that does not subscribe finds that out in its
        first call. The client goes on trying: its own server may come back.
        """
        if self._entered().done():
            raise ConnectionLost("the client was left")
        if not self._is_connected():
            waiting = asyncio.get_running_loop().create_future()
            self._waiting.append(waiting)
            await waiting

    def _is_connected(self) -> bool:
        return self._connection is not None and not self._connection.closed.done()

    def _tell(self, error: Optional[ConnectionLost] = None) -> None:
        """Those who wait for a connection; each gets an error of its own."""
        told, self._waiting = self._waiting, []
        for waiting in told:
            if not waiting.done():
                if error is None:
                    waiting.set_result(None)
                else:
                    waiting.set_exception(type(error)(*error.args))

    def _entered(self) -> "asyncio.Task[None]":
        if self._task is None:
            raise ConnectionLost("the client connects with `async with`, and is used inside it")
        return self._task

    # for derived classes

    async def _greet(self, connection: Connection) -> None:
        """Before anybody else uses a new connection."""

    def _received(self, message: Message) -> None:
        """A message that answers nothing the connection was asked."""

    def _lost(self, reason: str) -> None:
        """There is none any more."""

    def _left(self) -> None:
        self._tell(ConnectionLost("the client was left"))

    @staticmethod
    def _call_soon(function: Optional[Callable[..., object]], *arguments: object) -> None:
        """What it raises goes to the loop's exception handler, and ends nothing here."""
        if function is not None:
            asyncio.get_running_loop().call_soon(function, *arguments)

    # the life of a connection

    async def _stay_connected(self) -> None:
        while True:
            try:
                with contextlib.closing(_wire.new_socket()) as unconnected:
                    await self._connect(unconnected)
                    await self._serve(unconnected)
            except Refused as error:
                self._fail(str(error), logging.INFO if str(error) == self._warned
                           else logging.WARNING)
                self._warned = str(error)
            except (OSError, ProtocolError) as error:
                self._fail(str(error), logging.INFO)
            await asyncio.sleep(self._reconnect + random.uniform(0, self._jitter))

    def _fail(self, reason: str, level: int) -> None:
        self._why_not, self._warned = reason, ""
        _log.log(level, "%s: no connection: %s", self._peer, reason)

    async def _connect(self, unconnected: socket.socket) -> None:
        unconnected.setblocking(False)
        if not self._connects(unconnected):
            _log.info("%s: waiting, as the server's backlog is full", self._peer)
            while not self._connects(unconnected):
                await asyncio.sleep(_RETRY)  # nothing reports when there is room
        if self._server_uids is not None:
            try:
                _wire.require_server(unconnected, self._server_uids)
            except Refused as error:
                self._tell(error)
                raise

    def _connects(self, unconnected: socket.socket) -> bool:
        with contextlib.suppress(BlockingIOError):
            unconnected.connect(self._address)
            return True
        return False

    async def _serve(self, connected: socket.socket) -> None:
        def ended() -> None:  # at once: who waits from now on waits for the next attempt
            if connection.refused:
                self._tell(Refused(connection.closed.result()))

        connection = Connection(connected, self._peer, self._received, ended, admission=True)
        try:
            await self._greet(connection)
            await self._lend(connection)
        finally:
            connection.close("the client was left")

    async def _lend(self, connection: Connection) -> None:
        _log.info("%s: connected", self._peer)
        self._connection = connection
        self._tell()
        reason = "the client was left"
        try:
            self._call_soon(self._on_connect)
            reason = self._why_not = await asyncio.shield(connection.closed)
            if connection.refused:
                raise Refused(reason)
            self._warned = ""
            _log.info("%s: connection lost: %s", self._peer, reason)
        finally:
            self._connection = None
            self._lost(reason)
