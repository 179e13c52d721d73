"""The lab's network with its daemons, in one state after another."""

from __future__ import annotations

from typing import Any

from lab import daemons, topology
from lab.comparisons import bfd
from lab.network import Network
from lab.topology import Session

# One link goes down and comes up; "restored" must equal "baseline".
STATES = BASELINE, LINK_DOWN, RESTORED = ("baseline", "link_down", "restored")

# Results of the module on a node: "arp", "routes" by address, "sessions" by name, "listing".
Observations = dict[str, Any]


class Lab(Network):
    """A converged network in the state "baseline"."""

    def __init__(self) -> None:
        self._state = BASELINE
        self._observations: dict[str, dict[str, Observations]] = {}
        super().__init__()

    def start(self) -> None:
        """Start the daemons, too, and wait until they converge."""
        super().start()
        daemons.start(self)
        daemons.wait_converged(self, link_down=False)
        self.add_neighbors()

    def transition_to(self, state: str) -> None:
        """Take the failing link down or up if needed and wait until the network converges.

        Raises:
            LabError: It did not converge; the message names the first difference.
        """
        if (self._state, state) == (BASELINE, RESTORED):
            self.transition_to(LINK_DOWN)
        if state == self._state:
            return
        self._observe()
        link_down = state == LINK_DOWN
        if link_down != (self._state == LINK_DOWN):
            self.set_link(topology.FAILING_LINK, "down" if link_down else "up")
            daemons.wait_converged(self, link_down=link_down)
        self._state = state

    def observations(self, state: str) -> dict[str, Observations]:
        """Return the module's results in a state by node, collected once per state."""
        for each in STATES:
            if each not in self._observations and state not in self._observations:
                self.transition_to(each)
                self._observe()
        return self._observations[state]

    def session(self, state: str, row: Session) -> dict[str, Any]:
        """Return the module's result for a session in a state."""
        sessions = self.observations(state)[row.node]["sessions"]
        session: dict[str, Any] = sessions[f"{row.peer}_{row.location}"]
        return session

    def _observe(self) -> None:
        if self._state in self._observations:
            return
        self._observations[self._state] = {
            name: {
                "arp": node.agent.call_live("get_system_arp_result"),
                "routes": {
                    row.address: node.agent.call_live("get_routing_table_result", row.address)
                    for row in topology.REROUTED
                    if row.node == name
                },
                "sessions": bfd.call_for_each_session(node),
                "listing": node.agent.call_live("list_bfd_neighbor"),
            }
            for name, node in self.nodes.items()
        }
