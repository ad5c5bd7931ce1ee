"""The smoke row as a unittest case, for the package's tests that play it
with a configuration writer or an uploader of their own (tests/packaging)."""

import scenario
import test_scenarios
from e2e_base import SandboxCase

CYCLES = test_scenarios.SMOKE_CYCLES


class SmokeTest(SandboxCase):

    def test_one_terminal_two_cycles(self):
        scenario.run(test_scenarios.SMOKE, self.sb)
