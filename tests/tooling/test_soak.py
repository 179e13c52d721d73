"""The soak itself: its rule sees growth, and a short one of all cases goes well."""

from __future__ import annotations

import pytest

from checks.soak.metrics import METRICS, Samples, measure_growth
from checks.soak.workload import Workload
from tests.support.call_cases import CASES
from tests.support.function_table import FUNCTIONS
from veldarin_simulator import Simulator

ROUNDS = 16
CALLS = 100 * len(CASES)  # each case 50 times between the quarters


def record(what: int, growth: float) -> Samples:
    """A run in which one count grows by so much in the time between the quarters."""
    made = Samples(ROUNDS)
    for number in range(ROUNDS):
        made.calls[number] = CALLS * (number + 1) / ROUNDS
        made.values[what][number] = 1000 + 2 * growth * number / ROUNDS
    return made


def flat(made: Samples) -> list[bool]:
    return [growth.is_flat for growth in measure_growth(made, len(CASES))]


@pytest.mark.parametrize("what", range(len(METRICS)), ids=lambda what: METRICS[what].name)
def test_leak_of_one_case_is_detected(what: int) -> None:
    assert flat(record(what, 0)) == [True] * len(METRICS)
    verdicts = flat(record(what, 50))
    assert verdicts[what] is False
    assert verdicts.count(False) == 1


def test_every_case_ends_as_expected(build: None) -> None:
    with Simulator(live=False) as simulator, Workload(simulator, threads=3) as workload:
        assert workload.run_round(repeats=2, number=0) == 6 * len(CASES)
        assert simulator.live_objects.json_objects == simulator.live_objects.text_buffers == 0
    assert {case.function for group in workload.groups for case in group} == {
        row.name for row in FUNCTIONS
    }


def test_unexpected_case_result_is_reported(build: None, monkeypatch: pytest.MonkeyPatch) -> None:
    with Simulator(live=False) as simulator, Workload(simulator, threads=2) as workload:
        monkeypatch.setattr(workload, "groups", [[CASES[0]._replace(error=KeyError)]])
        with pytest.raises(AssertionError, match="new_cookie_id"):
            workload.run_round(repeats=1, number=0)
