"""Addresses and records."""

import unittest

import support  # noqa: F401  (finds the package)
import tovik
from tovik import _wire


class Address(unittest.TestCase):
    def test_is_a_nul_the_name_and_zeros_up_to_108_bytes(self):
        self.assertEqual(tovik.address("adder"), b"\0adder" + bytes(102))

    def test_of_the_longest_name_keeps_room_for_a_zero(self):
        self.assertEqual(tovik.address("x" * 106), b"\0" + b"x" * 106 + b"\0")

    def test_of_an_empty_name_is_all_zeros(self):
        self.assertEqual(tovik.address(""), bytes(108))

    def test_counts_bytes_and_not_characters(self):
        self.assertEqual(tovik.address("ä" * 53)[1:107], "ä".encode() * 53)
        with self.assertRaisesRegex(ValueError, "at most 106 bytes, this one 108"):
            tovik.address("ä" * 54)

    def test_refuses_what_a_server_would_not_bind(self):
        for name in ("x" * 107, "a\0b"):
            with self.assertRaises(ValueError):
                tovik.address(name)


class Record(unittest.TestCase):
    def test_is_compact_utf_8(self):
        self.assertEqual(tovik.encode({"a": [1, 2.5, None, True], "ä": {}}),
                         '{"a":[1,2.5,null,true],"ä":{}}'.encode())

    def test_has_at_most_4094_bytes(self):
        fitting = {"m": "x" * (4094 - len('{"m":""}'))}
        self.assertEqual(len(tovik.encode(fitting)), 4094)
        self.assertEqual(tovik.decode(tovik.encode(fitting)), fitting)
        with self.assertRaisesRegex(tovik.ProtocolError, "4094 bytes, this one 4095"):
            tovik.encode({"m": fitting["m"] + "x"})
        with self.assertRaises(tovik.ProtocolError):
            tovik.decode(b"{}" + b" " * 4093)

    def test_is_an_object(self):
        for value in ([1, 2], "reply", 7, None, True):
            with self.assertRaises(tovik.ProtocolError):
                tovik.encode(value)
        for text in (b"[1,2]", b'"reply"', b"7", b"null"):
            with self.assertRaises(tovik.ProtocolError):
                tovik.decode(text)

    def test_knows_no_numbers_but_json_s(self):
        for number in (float("nan"), float("inf")):
            with self.assertRaises(tovik.ProtocolError):
                tovik.encode({"n": number})
        for text in (b'{"n":NaN}', b'{"n":Infinity}', b'{"n":-Infinity}'):
            with self.assertRaises(tovik.ProtocolError):
                tovik.decode(text)

    def test_carries_nothing_that_json_does_not_express(self):
        nested = {}
        for _ in range(10000):
            nested = {"a": nested}
        for value, why in ((b"bytes", "bytes is not JSON"), ({1, 2}, "set is not JSON"),
                           ({(1, 2): 3}, "keys must be"), ("\ud800", "surrogates"),
                           (float("nan"), "not JSON compliant"), (object(), "object is not JSON"),
                           (nested, "recursion")):
            with self.assertRaisesRegex(tovik.ProtocolError, f"not expressible in JSON.*{why}"):
                tovik.encode({"m": value})

    def test_that_is_not_json_is_refused(self):
        for record in (b"", b"{", b"{} {}", b"{'a':1}", b'{"a":1,}', b"[" * 4000,
                       b'{"a":1e400}', b'{"a":"\\ud800"}', b'{"a":"\\\\\\uDBFF\\u0041"}'):
            with self.assertRaises(tovik.ProtocolError):
                tovik.decode(record)

    def test_reads_as_every_other_reader_does(self):
        for record, message in ((b'{"a":1}\0{', {"a": 1}), (b'{"a":1,"a":2}', {"a": 1}),
                                (b'{"a":"\\ud83d\\ude00\\\\ud800"}', {"a": "\U0001f600\\ud800"})):
            self.assertEqual(tovik.decode(record), message)

    def test_takes_any_bytes_in_strings_and_gives_them_back(self):
        record = b'{"b":"\xff\xc3(\x80"}'
        self.assertEqual(tovik.encode(tovik.decode(record)), record)

    def test_may_have_whitespace_around_the_object(self):
        self.assertEqual(tovik.decode(b' {"a":1} \n'), {"a": 1})


class Reply(unittest.TestCase):
    def test_gives_its_status(self):
        for text, status in ((b'{"type":"reply","status":0}', 0),
                             (b'{"status":7,"type":"reply","more":1}', 7),
                             (b'{"type":"reply","status":2147483647}', 2147483647)):
            self.assertEqual(_wire.status_of(tovik.decode(text)), status)

    def test_of_another_form_is_refused(self):
        for text in (b'{"type":"reply","status":-1}', b'{"type":"reply","status":1.0}',
                     b'{"type":"reply","status":"0"}', b'{"type":"Reply","status":0}',
                     b'{"type":"reply"}', b'{"status":0}', b'{"type":5,"status":0}',
                     b'{"type":"reply","status":true}', b'{"type":"reply","status":2147483648}'):
            with self.assertRaises(tovik.ProtocolError, msg=text):
                _wire.status_of(tovik.decode(text))
