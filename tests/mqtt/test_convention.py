"""The convention's conformance suite across both bridges: services in every language at the one
end, callers in every language at the other."""

import contextlib
import unittest

import broker
import support
import test_conformance as conformance


class Across(broker.Case):
    """The service has a name at its own end, callers know another one."""
    remote = None

    def setUp(self):
        if self.remote is None:  # once for all cases of a test
            super().setUp()
            self.remote, self.name = support.unique_name("there"), support.unique_name("here")
            self.bridge("--prefix", self.prefix, self.remote)
            self.bridge("--import", f"{self.name}={self.prefix}/{self.remote}")

    @contextlib.contextmanager
    def serve(self, program, *arguments):
        with conformance.Program([*program, "serve", self.remote, *arguments]) as service:
            support.wait_until(lambda: support.listens(self.name), "opening")
            yield service
        support.wait_until(lambda: not support.listens(self.name), "closing")


class Services(Across, conformance.Services):
    def cases(self):
        for case in super().cases():
            steps = case["steps"]
            if case["name"] == "SixteenInFlight":  # all callers elsewhere are one to the service
                steps = [step for step in steps if "as" not in step]
            yield {**case, "steps": steps}


class Pairs(Across, conformance.Pairs):
    pass


class Command(Across, conformance.Command):
    pass


if __name__ == "__main__":
    unittest.main()
