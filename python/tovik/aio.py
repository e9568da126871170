"""Clients for asyncio."""

from ._aio import AsyncClient
from ._proxy import Proxy

__all__ = ["AsyncClient", "Proxy"]
