"""What goes over the wire: addresses, records, replies, and the errors that tell of them."""

import json
import math
import re
import socket
import struct
from typing import Any, Collection, Dict, List, NamedTuple, NoReturn, Tuple

Message = Dict[str, Any]
"""A message is a JSON object."""

PATH_SIZE = 108  # bytes of an address's path, all of which count
LONGEST_NAME = 106
LONGEST_RECORD = 4094  # bytes that every reader takes
RECEIVE_SIZE = 4096  # enough to tell a record that is too long
LARGEST_STATUS = 2**31 - 1
LARGEST_ID = 2**53 - 1

_HALF_CHARACTER = re.compile(
    r"(?<!\\)(?:\\\\)*\\u[dD][89abAB]..(?!\\u[dD][c-fC-F])")  # the first half alone

REFUSED = ("the server has closed the connection before it sent anything: "
           "it does not admit this client, or has ended")
SUBSCRIBE: Message = {"command": "set", "notification": True}


class TovikError(Exception):
    """Base of this package's exceptions."""


class ConnectionLost(TovikError, ConnectionError):
    """There is no connection, or the server has closed it."""


class Refused(ConnectionLost):
    """The server has ended the connection without a word, or is not of the user that is wanted."""


class ProtocolError(TovikError, ValueError):
    """A record is no message, or a message is not what is expected here."""


class TooLong(ProtocolError):
    """More than one record carries."""


class WrongShape(ProtocolError):
    """Valid JSON that would end a C++ peer by assertion."""


class Credentials(NamedTuple):
    """Who is at the other end, as the kernel noted it when the connection was made.

    Decide by `uid` and `gid`. `pid` may be another process's by now.
    """

    pid: int
    uid: int
    gid: int


def address(name: str) -> bytes:
    """The socket address of the server of that name.

    The path is a NUL, the name, and zeros up to 108 bytes. All of them count: an address of the
    name alone meets no Tovik server.
    """
    path = b"\0" + name.encode("utf-8", "surrogateescape")
    if len(path) > 1 + LONGEST_NAME:
        raise ValueError(f"a name has at most {LONGEST_NAME} bytes, this one {len(path) - 1}")
    if b"\0" in path[1:]:
        raise ValueError("a name has no NUL byte")
    return path.ljust(PATH_SIZE, b"\0")


def encode(message: Message) -> bytes:
    """The record that carries the message: its compact JSON text."""
    if not isinstance(message, dict):
        raise WrongShape("a message is an object: a server ends if it gets anything else")
    record = encode_any(message)
    if len(record) > LONGEST_RECORD:
        raise TooLong(f"a record has at most {LONGEST_RECORD} bytes, this one {len(record)}")
    return record


def encode_any(value: object) -> bytes:
    """The compact JSON text of any value, of any length."""
    try:
        text = json.dumps(value, ensure_ascii=False, allow_nan=False, separators=(",", ":"))
        return text.encode("utf-8", "surrogateescape")
    except (TypeError, ValueError, RecursionError) as error:
        raise ProtocolError(f"the message is not expressible in JSON: {error}") from error


def decode(record: bytes) -> Message:
    """The message that a record carries. Bytes that are no UTF-8 become surrogate escapes.

    As for every reader, a NUL ends the text, and of members with one name the first counts.
    """
    if len(record) > LONGEST_RECORD:
        raise TooLong(f"a record of more than {LONGEST_RECORD} bytes")
    try:
        text = record.partition(b"\0")[0].decode("utf-8", "surrogateescape")
        if _HALF_CHARACTER.search(text):
            raise ValueError("half of a surrogate pair")
        message = json.loads(text, parse_constant=_refuse, parse_float=_finite,
                             object_pairs_hook=_first_of_each)
    except (ValueError, RecursionError) as error:
        raise ProtocolError(f"a record that is not JSON: {error}") from error
    if not isinstance(message, dict):
        raise WrongShape("a message that is no object")
    return message


def _refuse(constant: str) -> NoReturn:
    raise ValueError(f"{constant} is not JSON")


def _finite(number: str) -> float:
    return float(number) if math.isfinite(float(number)) else _refuse(number)


def _first_of_each(members: List[Tuple[str, Any]]) -> Message:
    message: Message = {}
    for name, value in members:
        message.setdefault(name, value)
    return message


def status_of(reply: Message) -> int:
    """The status of a reply."""
    status = reply.get("status")
    if reply.get("type") != "reply" or type(status) is not int or status < 0:
        raise ProtocolError(f"a reply was expected, and this came: {reply}")
    if status > LARGEST_STATUS:
        raise ProtocolError(f"a reply's status is at most {LARGEST_STATUS}, this one {status}")
    return status


def new_socket() -> socket.socket:
    """An unconnected socket, close-on-exec as all of Python's."""
    return socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)


def receive(connection: socket.socket) -> bytes:
    """The next record; no bytes at the end.

    If the peer closed without reading all that it got, the first read fails. What the peer had sent
    can still be read.
    """
    try:
        return connection.recv(RECEIVE_SIZE)
    except ConnectionResetError:
        return connection.recv(RECEIVE_SIZE)


def peek(connection: socket.socket) -> bool:
    """Whether a record waits to be read, on a connection whose peer has closed it."""
    try:
        return bool(connection.recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT))
    except ConnectionResetError:  # which is told once
        return bool(connection.recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT))
    except BlockingIOError:
        return False


def credentials(connection: socket.socket) -> Credentials:
    """Who is at the other end."""
    layout = struct.Struct("iII")
    raw = connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, layout.size)
    return Credentials(*layout.unpack(raw))


def require_server(connection: socket.socket, uids: Collection[int]) -> None:
    """Refuses a server that another user has started: any user may take a free name."""
    found = credentials(connection).uid
    if found not in uids:
        wanted = " or ".join(map(str, sorted(uids)))
        raise Refused(f"the server runs as user {found}, not as user {wanted}")
