"""A call of one of the module's functions as the subject of a sweep."""

from __future__ import annotations

import gc
from collections.abc import Iterator

from checks.fault_injection.case_setup import Stage
from checks.fault_injection.expectations import Judge
from checks.fault_injection.libfaults import NOWHERE, Library, Point, Report
from checks.fault_injection.process_cases import Arranged
from checks.fault_injection.results import OF_MEMORY, Found
from veldarin_simulator import LiveObjects, Simulator

NO_LIVE_OBJECTS = LiveObjects(json_objects=0, text_buffers=0)
BRIDGED = ("list_switch", "list_system", "switch_", "get_system_sniffer", "capture_")

# Without memory for the result these two keep the native buffer, on purpose.
KEEPING = ("PyBytes_FromString(encrypted)", "PyBytes_FromString(decrypted)")
KEPT = ["+1 memory blocks"]


class CallSubject:
    """A case in this process, for good."""

    def __init__(self, library: Library, arranged: Arranged, simulator: Simulator) -> None:
        self.case = case = arranged.case
        library.shelter_json_objects()
        self._stage = Stage(library, simulator, arranged)
        # What is raised here is kept, and with it the frames of the traceback entries: the
        # interpreter would use them again, and no entry would need memory any more.
        self._kept: list[BaseException] = []
        self._judge = Judge(case, self._stage.run(keep=self._kept))
        gc.collect()
        gc.freeze()  # from here on collecting takes no time

    def starts(self) -> Iterator[Point]:
        """The first allocation of every allocator, alone and with all after it."""
        for lasting in (False, True):
            yield Point("interpreter", 1, lasting)
            if self.case.function.startswith(BRIDGED):
                yield Point("json-c", 1, lasting)

    def examine(self, point: Point) -> Found:
        """The call with its point, the same over and over, and the call with all memory again."""
        stage, judge = self._stage, self._judge
        found = stage.run(point)
        report = stage.library.report()
        complaint = judge.complaint(found, point, report)
        complaints = [] if complaint is None else [complaint]
        expected = KEPT if _keeps(report) else []
        if stage.left_behind(point) != expected:
            left = stage.left_behind(point)  # the interpreter, too, does things for once
            if left != expected:
                complaints.append(f"left behind: {', '.join(left) or 'nothing'}")
        afterwards = stage.run()
        if afterwards.same != judge.reference.same:
            complaints.append(f"afterwards the same call ended with {afterwards.same}")
        gc.collect()
        if (held := self._held(report)) != NO_LIVE_OBJECTS:
            complaints.append(f"still held: {held}")
        return Found(report.failed > 0, tuple(complaints))

    def _held(self, report: Report) -> LiveObjects:
        held = self._stage.simulator.live_objects
        if self.case.function == "encrypt_cookie" and _keeps(report):
            return held._replace(text_buffers=held.text_buffers - self._stage.runs)
        return held

    def force(self, key: str) -> Found:
        """The call with one fallible call failing of which memory is no reason."""
        stage = self._stage
        stage.library.force(key)
        found = stage.run()
        left = stage.left_behind(NOWHERE)
        stage.library.force(None)
        complaints = [] if found.ended == OF_MEMORY else [f"ended with {found.same}"]
        complaints += [f"left behind: {what}" for what in left]
        afterwards = stage.run()
        if afterwards.same != self._judge.reference.same:
            complaints.append(f"afterwards the same call ended with {afterwards.same}")
        return Found(True, tuple(complaints))


def _keeps(report: Report) -> bool:
    return report.site is not None and report.site.endswith(KEEPING)
