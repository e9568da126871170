"""Whom a server or a service admits: rules to combine, with the meaning of C++'s Api/Admission.h.

    admission = root() | (same_user() & rate_per_user(5, 20))

Everything fails closed. A rule that cannot tell refuses, negated or not; so does any answer of a
function but True. No rule looks at the process id, which may be another process's by now. Limits go
last in a combination: what is not asked counts nothing.
"""

import math
import os
import time
from typing import Callable, Dict, NoReturn, Optional, Tuple

from ._wire import Credentials

__all__ = ["Check", "Rule", "groups", "limit_per_user", "rate_per_user", "root", "same_user",
           "users"]

_UNMAPPED = 65534  # stands for every user without a mapping in this user namespace
_SWEEP_AT = 64  # buckets, from which on full ones are forgotten

Check = Callable[[Credentials], Optional[bool]]
"""True admits, and None means that it cannot tell."""


class Rule:
    """Decides about one client; combined by `&`, `|` and `~`, also with plain functions. Operands
    are asked from left to right, and no more of them than it takes."""

    def __init__(self, check: Check) -> None:
        if not callable(check):
            raise TypeError("a server is told whom to admit, as by tovik.admission.same_user(): "
                            f"a function of the client's credentials, not {check!r}")
        self._check = check

    def __call__(self, peer: Credentials) -> bool:
        return self.ask(peer) is True

    def ask(self, peer: Credentials) -> Optional[bool]:
        """True, False, or None where it cannot be told."""
        answer = self._check.ask(peer) if isinstance(self._check, Rule) else self._check(peer)
        return answer if isinstance(answer, bool) else None

    def __and__(self, other: Check) -> "Rule":
        return _combined(self, Rule(other), True)

    def __rand__(self, other: Check) -> "Rule":
        return _combined(Rule(other), self, True)

    def __or__(self, other: Check) -> "Rule":
        return _combined(self, Rule(other), False)

    def __ror__(self, other: Check) -> "Rule":
        return _combined(Rule(other), self, False)

    def __invert__(self) -> "Rule":
        def opposite(peer: Credentials) -> Optional[bool]:
            answer = self.ask(peer)
            return None if answer is None else not answer
        return Rule(opposite)

    def __bool__(self) -> NoReturn:
        raise TypeError("rules are combined by &, | and ~: `and`, `or` and `not` would lose one")


def _combined(left: Rule, right: Rule, neutral: bool) -> Rule:
    """The left one's word, unless that decides nothing: then the right one's."""
    def check(peer: Credentials) -> Optional[bool]:
        answer = left.ask(peer)
        return right.ask(peer) if answer is neutral else answer
    return Rule(check)


def users(*admitted: int) -> Rule:
    """Users by number. Without any, nobody."""
    return Rule(lambda peer: peer.uid in admitted)


def root() -> Rule:
    """The user 0."""
    return users(0)


def same_user() -> Rule:
    """The user that this process acts as when a client is judged. While that is 65534, nobody: the
    number may stand for any user. A service that does run as this user says `users(65534)`."""
    return Rule(lambda peer: peer.uid == os.geteuid() and peer.uid != _UNMAPPED)


def groups(*admitted: int) -> Rule:
    """Groups by number: the client's effective group. A server is told of no other."""
    return Rule(lambda peer: peer.gid in admitted)


def rate_per_user(per_second: float, burst: float,
                  now: Callable[[], float] = time.monotonic) -> Rule:
    """Each user may connect `burst` times at once, and `per_second` times a second in the long run.
    Refused attempts cost nothing. `now` is the clock, for tests."""
    if not (math.isfinite(per_second) and per_second >= 0 and math.isfinite(burst) and burst >= 1):
        raise ValueError("a rate is at least 0 a second, and a burst at least 1")
    buckets: Dict[int, Tuple[float, float]] = {}  # of each user: the tokens, and when
    sweep_at = _SWEEP_AT

    def tokens(uid: int, at: float) -> float:
        left, since = buckets.get(uid, (burst, at))
        return min(burst, left + max(0.0, at - since) * per_second)

    def check(peer: Credentials) -> bool:
        nonlocal sweep_at
        at = now()
        if len(buckets) >= sweep_at:
            for uid in [uid for uid in buckets if tokens(uid, at) >= burst]:
                del buckets[uid]
            sweep_at = max(_SWEEP_AT, 2 * len(buckets))
        left = tokens(peer.uid, at)
        buckets[peer.uid] = (left - 1 if left >= 1 else left, at)
        return left >= 1
    return Rule(check)


def limit_per_user(limit: int, count: Callable[[int], Optional[int]]) -> Rule:
    """Each user may have `limit` connections at the same time. `count` tells how many a user has
    already: `lambda uid: server.connections_of(uid)`, which may stand before the server does."""
    def check(peer: Credentials) -> Optional[bool]:
        has = count(peer.uid)
        return None if has is None else has < limit
    return Rule(check)
