"""The soak itself: its rule sees growth, and a short one of all cases goes well."""

from __future__ import annotations

import pytest

from checks.soak import metrics
from checks.soak.metrics import COUNTS, Record
from checks.soak.workload import Stage
from tests.support.call_cases import CASES
from tests.support.function_table import FUNCTIONS
from veldarin_simulator import Simulator

ROUNDS = 16
CALLS = 100 * len(CASES)  # each case 50 times between the quarters


def record(what: int, growth: float) -> Record:
    """A run in which one count grows by so much in the time between the quarters."""
    made = Record(ROUNDS)
    for number in range(ROUNDS):
        made.calls[number] = CALLS * (number + 1) / ROUNDS
        made.counts[what][number] = 1000 + 2 * growth * number / ROUNDS
    return made


def flat(made: Record) -> list[bool]:
    return [growth.flat for growth in metrics.growths(made, len(CASES))]


@pytest.mark.parametrize("what", range(len(COUNTS)), ids=lambda what: COUNTS[what].name)
def test_leak_of_one_case_is_detected(what: int) -> None:
    assert flat(record(what, 0)) == [True] * len(COUNTS)
    verdicts = flat(record(what, 50))
    assert verdicts[what] is False
    assert verdicts.count(False) == 1


def test_every_case_ends_as_expected(build: None) -> None:
    with Simulator(live=False) as simulator, Stage(simulator, threads=3) as stage:
        assert stage.round(times=2, number=0) == 6 * len(CASES)
        assert simulator.live_objects.json_objects == simulator.live_objects.text_buffers == 0
    assert {case.function for group in stage.groups for case in group} == {
        row.name for row in FUNCTIONS
    }


def test_unexpected_case_result_is_reported(build: None, monkeypatch: pytest.MonkeyPatch) -> None:
    with Simulator(live=False) as simulator, Stage(simulator, threads=2) as stage:
        monkeypatch.setattr(stage, "groups", [[CASES[0]._replace(error=KeyError)]])
        with pytest.raises(AssertionError, match="new_cookie_id"):
            stage.round(times=1, number=0)
