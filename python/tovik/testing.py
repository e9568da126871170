"""A server for tests of clients, in Python or any other language."""

import contextlib
import selectors
import socket
import threading
from types import TracebackType
from typing import Callable, Dict, List, Optional, Type, Union

from . import _wire
from ._wire import Credentials, Message, ProtocolError, WrongShape

Answer = Union[int, Message, None]
"""What a handler returns: a status to reply with, a message to send, or nothing."""

_BACKLOG = 5


class Server:
    """Serves on a thread of its own, from `with` to its end.

    It keeps to the protocol as the library does: the notification switch is consumed, and answered
    unless the client was subscribed before; a subscribed client gets notifications and no replies;
    records that are not JSON are dropped. What would end a C++ server by assertion ends the
    connection here, and is noted in `violations`. A handler or validator that raises ends the
    server, and every client loses its connection; leaving the block raises the error there.
    """

    def __init__(self, name: str, handler: Optional[Callable[[Message], Answer]] = None,
                 validator: Optional[Callable[[Credentials], bool]] = None) -> None:
        """Listens at once. Without a handler all messages are acknowledged with status 0; without a
        validator all clients are admitted, which is for tests only."""
        self.received: List[Message] = []
        self.violations: List[str] = []
        self._handler = handler or (lambda message: 0)
        self._validator = validator or (lambda peer: True)
        self._clients: Dict[socket.socket, bool] = {}  # subscribed?
        self._lock = threading.RLock()
        self._ended = False
        self._failure: Optional[Exception] = None
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._selector = selectors.DefaultSelector()
        self._listener = _wire.new_socket()
        self._listener.bind(_wire.address(name))
        self._listener.listen(_BACKLOG)
        self._waker, self._wakened = socket.socketpair()

    def __enter__(self) -> "Server":
        self._selector.register(self._listener, selectors.EVENT_READ)
        self._selector.register(self._wakened, selectors.EVENT_READ)
        self._thread.start()
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], value: Optional[BaseException],
                 traceback: Optional[TracebackType]) -> None:
        self._ended = True
        self._waker.send(b"x")
        self._thread.join()
        self._selector.close()
        for owned in (self._waker, self._wakened):
            owned.close()
        if self._failure is not None:
            raise self._failure

    @property
    def subscribers(self) -> int:
        """How many clients are subscribed now."""
        with self._lock:
            return sum(self._clients.values())

    def notify(self, message: Message) -> int:
        """Sends a message to every subscribed client; returns to how many. From any thread."""
        with self._lock:
            subscribed = [client for client, wanted in self._clients.items() if wanted]
            for client in subscribed:
                self._send(client, _wire.encode(message))
            return len(subscribed)

    def send_raw(self, record: bytes) -> None:
        """Sends any bytes as one record to every client, to see what it makes of them."""
        with self._lock:
            for client in list(self._clients):
                self._send(client, record)

    def disconnect(self) -> None:
        """Closes every connection."""
        with self._lock:
            for client in list(self._clients):
                self._drop(client)

    def _run(self) -> None:
        try:
            while not self._ended:
                for key, _events in self._selector.select():
                    with self._lock:
                        self._turn_to(key.fileobj)
        except Exception as error:
            self._failure = error
        finally:
            self._listener.close()
            self.disconnect()

    def _turn_to(self, ready: object) -> None:
        if ready is self._listener:
            self._accept()
        elif ready in self._clients:
            self._read(ready)  # type: ignore[arg-type]

    def _accept(self) -> None:
        client, _address = self._listener.accept()
        client.settimeout(10)
        self._clients[client] = False
        if not self._validator(_wire.credentials(client)):
            return self._drop(client)
        self._selector.register(client, selectors.EVENT_READ)

    def _read(self, client: socket.socket) -> None:
        try:
            record = client.recv(_wire.RECEIVE_SIZE)
        except OSError:
            record = b""
        if not record:
            return self._drop(client)
        try:
            message = _wire.decode(record)
        except WrongShape:
            return self._violation(client, record)
        except ProtocolError:
            return
        self._handle(client, message, record)

    def _handle(self, client: socket.socket, message: Message, record: bytes) -> None:
        if "command" in message and "notification" in message:
            if not isinstance(message["command"], str):
                return self._violation(client, record)
            if message["command"] == "set":
                return self._switch(client, message["notification"])
        self.received.append(message)
        self._answer(client, self._handler(message))

    def _switch(self, client: socket.socket, wanted: object) -> None:
        if isinstance(wanted, bool):
            self._answer(client, 0)
            if client in self._clients:
                self._clients[client] = wanted

    def _answer(self, client: socket.socket, answer: Answer) -> None:
        if isinstance(answer, dict):
            self._send(client, _wire.encode(answer))
        elif answer is not None and not self._clients.get(client, True):
            self._send(client, _wire.encode({"type": "reply", "status": answer}))

    def _violation(self, client: socket.socket, record: bytes) -> None:
        self.violations.append(record.decode("utf-8", "replace"))
        self._drop(client)

    def _send(self, client: socket.socket, record: bytes) -> None:
        try:
            client.send(record)
        except OSError:
            self._drop(client)

    def _drop(self, client: socket.socket) -> None:
        if self._clients.pop(client, None) is not None:
            with contextlib.suppress(KeyError, ValueError):
                self._selector.unregister(client)
            client.close()
