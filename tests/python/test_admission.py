"""The rules that say who is served."""

import os
import unittest
from unittest import mock

import support  # noqa: F401  (finds the package)
import tovik
from tovik import admission


def peer(uid=1000, gid=1000):
    return tovik.Credentials(1, uid, gid)


def constant(answer):
    return admission.Rule(lambda peer: answer)


YES, NO, UNKNOWN = constant(True), constant(False), constant(None)


class Rules(unittest.TestCase):
    def test_admit_the_users_and_groups_they_name_and_nobody_else(self):
        for rule, admitted, refused in (
                (admission.users(7, 8), peer(7), peer(9)), (admission.root(), peer(0), peer(1)),
                (admission.groups(7), peer(1, 7), peer(7, 1)),
                (admission.same_user(), peer(os.geteuid()), peer(os.geteuid() + 1))):
            self.assertIs(rule(admitted), True)
            self.assertIs(rule(refused), False)
        self.assertIs(admission.users()(peer(0)), False)

    def test_take_the_number_that_stands_for_many_for_nobody_s(self):
        with mock.patch("os.geteuid", lambda: 65534):
            self.assertIs(admission.same_user()(peer(65534)), False)
            self.assertIs(admission.users(65534)(peer(65534)), True)

    def test_combine_also_with_plain_functions(self):
        refuses_1001 = (lambda peer: peer.uid != 1001) & admission.groups(100)
        self.assertEqual([refuses_1001(peer(uid, 100)) for uid in (1000, 1001)], [True, False])
        either = admission.root() | (lambda peer: peer.gid == 5)
        self.assertEqual([either(each) for each in (peer(0), peer(1, 5), peer(1, 6))],
                         [True, True, False])

    def test_refuse_what_cannot_be_told_also_negated(self):
        for rule, admits in ((~YES, False), (~NO, True), (UNKNOWN, False), (~UNKNOWN, False),
                             (UNKNOWN & YES, False), (YES & UNKNOWN, False), (UNKNOWN | YES, False),
                             (YES | UNKNOWN, True), (NO | UNKNOWN, False), (~(NO & UNKNOWN), True)):
            self.assertIs(rule(peer()), admits)

    def test_take_nothing_but_true_for_a_yes(self):
        for answer in (1, "yes", [1], object()):
            self.assertIs(constant(answer)(peer()), False)
            self.assertIs((~constant(answer))(peer()), False)

    def test_refuse_to_be_combined_by_words_that_would_lose_one(self):
        with self.assertRaisesRegex(TypeError, "&, | and ~"):
            admission.root() and admission.same_user()

    def test_are_functions(self):
        for nothing in (None, True, {1000}):
            with self.assertRaisesRegex(TypeError, "whom to admit"):
                admission.root() | nothing

    def test_limit_the_rate_of_each_user(self):
        now = 0.0
        rule = admission.rate_per_user(2, 3, lambda: now)
        self.assertEqual([rule(peer(1)) for _ in range(5)], [True] * 3 + [False] * 2)
        self.assertTrue(rule(peer(2)))
        now = 0.5
        self.assertEqual([rule(peer(1)) for _ in range(2)], [True, False])
        now = 100.0
        self.assertEqual([rule(peer(1)) for _ in range(4)], [True] * 3 + [False])

    def test_forget_users_whose_bucket_is_full_again(self):
        now = 0.0
        rule = admission.rate_per_user(1, 1, lambda: now)
        for uid in range(1000):
            now += 0.1
            self.assertTrue(rule(peer(uid)))
        buckets = next(cell.cell_contents for cell in rule._check.__closure__
                       if isinstance(cell.cell_contents, dict))
        self.assertLess(len(buckets), 200)

    def test_refuse_a_rate_that_makes_no_sense(self):
        for rate, burst in ((-1, 1), (1, 0.5), (float("nan"), 1), (1, float("inf"))):
            with self.assertRaises(ValueError):
                admission.rate_per_user(rate, burst)

    def test_limit_the_connections_of_each_user(self):
        for has, admits in ((0, True), (1, True), (2, False), (None, False)):
            self.assertIs(admission.limit_per_user(2, lambda uid, has=has: has)(peer()), admits)
