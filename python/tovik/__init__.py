"""Tovik in Python: JSON messages between processes on one Linux machine.

A blocking client::

    with tovik.Client("adder", timeout=5) as client:
        status = client.call({"add": 5})

A client for asyncio, which reconnects and subscribes again by itself::

    async with tovik.AsyncClient("adder", subscribe=True) as client:
        async for message in client:
            print(message)

A plain server for asyncio is `tovik.Server`. A service, with commands and topics, is
`tovik.Service`; `tovik.aio.Proxy` and `tovik.call` call it. `tovik.admission` has the rules that
say who is served, and `tovik.testing` a server for tests of clients. Only the standard library is
needed.
"""

from . import _version, admission, aio
from ._aio import AsyncClient
from ._client import Client
from ._proxy import Outcome, call
from ._listening import Session
from ._server import Server, ServerSession
from ._service import Argument, Refusal, Request, Service, ServiceSession
from ._wire import (ConnectionLost, Credentials, Message, ProtocolError, Refused, TooLong,
                    TovikError, WrongShape, address, decode, encode)

__all__ = [
    "Argument", "AsyncClient", "Client", "ConnectionLost", "Credentials", "Message", "Outcome",
    "ProtocolError", "Refusal", "Refused", "Request", "Server", "ServerSession", "Service",
    "ServiceSession", "Session", "TooLong", "TovikError", "WrongShape", "address", "admission",
    "aio", "call", "decode", "encode",
]

__version__: str


def __getattr__(name: str) -> str:
    """The version stands in pyproject.toml alone, and is looked up when somebody asks."""
    if name != "__version__":
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    return _version.find()
