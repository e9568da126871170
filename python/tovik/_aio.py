"""The client for asyncio."""

import asyncio
from typing import AsyncIterator, Callable, Optional

from . import _wire
from ._connection import Connection
from ._reconnecting import Reconnecting
from ._wire import ConnectionLost, Message, ProtocolError, Refused


class AsyncClient(Reconnecting):
    """A client that connects by itself, and again `reconnect` seconds after each loss.

    Used with `async with`, on one event loop. With `subscribe`, it subscribes after each connect;
    iterating over it yields the messages that come, across reconnects, until the block is left.
    What was sent and not answered before a loss is not sent again: the call raises
    `ConnectionLost`, and the application decides. Notifications that the server made meanwhile are
    missed; `on_connect` is the place to fetch the state again, by another client, as a subscribed
    one gets no replies. `on_connect` and `on_loss` are plain functions that the loop calls.

    Messages wait in a queue without a bound until they are iterated over. A record that is no
    message is dropped. The logger `tovik` gets that as a warning, and so it does a refusal (the
    first of a row); each connection, loss and failed attempt is information.

    Leaving the block ends the iteration, and whatever waits, with `ConnectionLost`. Take the last
    reply before, as with `Client.close`: records that were sent may be lost.
    """

    def __init__(self, name: str, *, reconnect: float = 1.0, subscribe: bool = False,
                 server_uid: Optional[int] = None,
                 on_connect: Optional[Callable[[], None]] = None,
                 on_loss: Optional[Callable[[], None]] = None) -> None:
        """Nothing happens before `async with`. `reconnect` is at least 0.001. With `server_uid`,
        connects only to a server of that user."""
        super().__init__(name, reconnect, 0, None if server_uid is None else {server_uid},
                         on_connect)
        self._subscribe = subscribe
        self._on_loss = on_loss

    async def __aenter__(self) -> "AsyncClient":
        self._messages: "asyncio.Queue[Optional[Message]]" = asyncio.Queue()  # None is the end
        self._call_lock = asyncio.Lock()
        await self._enter()
        return self

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

    def _current(self) -> Connection:
        self._entered()
        if self._connection is None:
            kind = Refused if self._warned else ConnectionLost
            raise kind(f"not connected: {self._why_not}")
        return self._connection

    async def _greet(self, connection: Connection) -> None:
        if self._subscribe:
            _wire.status_of(await connection.ask(_wire.encode(_wire.SUBSCRIBE)))

    def _received(self, message: Message) -> None:
        self._messages.put_nowait(message)

    def _lost(self, reason: str) -> None:
        self._call_soon(self._on_loss)

    def _left(self) -> None:
        self._messages.put_nowait(None)
        super()._left()
