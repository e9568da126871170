"""The blocking client."""

import contextlib
import socket
import time
from types import TracebackType
from typing import Iterator, Optional, Type

from . import _wire
from ._wire import ConnectionLost, Credentials, Message, ProtocolError, Refused

_RETRY = 0.005  # seconds between attempts while the server has no room for another client


class Client:
    """One connection to a server, for one thread at a time; connected once it is made.

    `timeout` limits each operation, making the connection included, in seconds; `None` waits for
    ever. An operation that fails, by its time limit too, closes the connection: an answer that
    comes late would be taken for the answer to the next call.

    Raises `ConnectionLost` (a `ConnectionError`) if no server listens or once it has closed, its
    subclass `Refused` if the server has sent nothing before, `TimeoutError`, and `ProtocolError`
    for a message that cannot be sent (the connection then goes on) or for an answer that is none.
    """

    def __init__(self, name: str, timeout: Optional[float] = None,
                 server_uid: Optional[int] = None) -> None:
        """Connects. With `server_uid`, only to a server of that user."""
        target = _wire.address(name)
        self.timeout = timeout
        self._subscribed = False
        self._heard = False  # anything of the server
        self._socket: Optional[socket.socket] = _wire.new_socket()
        with self._operation() as connection:
            self._connect(connection, target)
            if server_uid is not None:
                _wire.require_server(connection, {server_uid})

    def close(self) -> None:
        """Closes the connection. Harmless on a closed one.

        Read the last reply first. If replies or notifications are unread, the server's next read
        fails, and the records that it has not read by then are lost.
        """
        if self._socket is not None:
            self._socket.close()
            self._socket = None

    @property
    def server(self) -> Credentials:
        """Who listens at the other end."""
        with self._operation() as connection:
            return _wire.credentials(connection)

    def send(self, message: Message) -> None:
        """Sends a message and waits for nothing; `receive` its reply before you close."""
        record = _wire.encode(message)
        with self._operation() as connection:
            connection.send(record)

    def receive(self) -> Message:
        """Waits for the next message, whatever it is."""
        with self._operation():
            return _wire.decode(self._receive())

    def _receive(self) -> bytes:
        with self._operation() as connection:
            record = _wire.receive(connection)
            if not record:
                raise self._ended("the server has closed the connection")
            self._heard = True
            return record

    def _ended(self, reason: str) -> ConnectionLost:
        return ConnectionLost(reason) if self._heard else Refused(_wire.REFUSED)

    def call(self, message: Message) -> int:
        """Sends a message and waits for the reply's status, which the server chooses."""
        if self._subscribed:
            raise ProtocolError("a subscribed connection gets no replies: use another client")
        self.send(message)
        with self._operation():
            return _wire.status_of(self.receive())

    def subscribe(self) -> None:
        """Subscribes to the server's notifications, to be received one by one or iterated over."""
        if not self._subscribed:
            self.call(_wire.SUBSCRIBE)
            self._subscribed = True

    def __iter__(self) -> Iterator[Message]:
        """The messages that come, until the server closes the connection."""
        while True:
            try:
                message = self.receive()
            except ConnectionLost:
                return
            yield message

    def __enter__(self) -> "Client":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], value: Optional[BaseException],
                 traceback: Optional[TracebackType]) -> None:
        self.close()

    @contextlib.contextmanager
    def _operation(self) -> Iterator[socket.socket]:
        """Lends the socket; whatever goes wrong meanwhile closes it."""
        if self._socket is None:
            raise ConnectionLost("the client is closed")
        try:
            self._socket.settimeout(self.timeout)
            yield self._socket
        except (TimeoutError, socket.timeout, BlockingIOError) as error:
            self.close()
            raise TimeoutError("the server has taken too long") from error
        except ConnectionLost:
            self.close()
            raise
        except BrokenPipeError as error:
            self.close()
            raise self._ended(str(error.strerror)) from error
        except OSError as error:
            self.close()
            raise ConnectionLost(error.strerror) from error
        except BaseException:
            self.close()
            raise

    def _connect(self, connection: socket.socket, target: bytes) -> None:
        """With a time limit, the kernel refuses at once while the server's backlog is full."""
        deadline = time.monotonic() + (self.timeout or 0)
        while True:
            try:
                return connection.connect(target)
            except BlockingIOError:
                if time.monotonic() >= deadline:
                    raise
            time.sleep(_RETRY)
