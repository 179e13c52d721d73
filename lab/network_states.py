"""The lab as a whole: the network with its daemons, brought into one state after the other, and
what the module said in each."""

from __future__ import annotations

from types import TracebackType
from typing import Any

from lab import daemons, topology
from lab.comparisons import bfd
from lab.network import Network, Node
from lab.topology import Session

# One wire is cut and mended; mended has to be as whole as before.
STATES = ("whole", "cut", "mended")

# Of a node: "arp", "routes" (by address), "sessions" (by name), "listing".
Told = dict[str, Any]


class Lab:
    """A network that has come to rest. Built whole; `come_to` brings it into another state."""

    def __init__(self) -> None:
        self._state = STATES[0]
        self._told: dict[str, dict[str, Told]] = {}
        self.network = Network()
        try:
            daemons.start(self.network)
            daemons.settle(self.network, cut=False)
            self.network.add_neighbors()
        except BaseException:
            self.close()
            raise

    def __enter__(self) -> Lab:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        self.close()

    def close(self) -> None:
        """Takes everything down."""
        self.network.close()

    @property
    def nodes(self) -> dict[str, Node]:
        """The nodes by name."""
        return self.network.nodes

    def come_to(self, state: str) -> None:
        """Cuts or mends the wire if it has to be, and waits until everything shows it. `LabError`
        names what does not."""
        if (self._state, state) == ("whole", "mended"):
            self.come_to("cut")
        if state == self._state:
            return
        self._remember()
        cut = state == "cut"
        if cut != (self._state == "cut"):
            (self.network.cut if cut else self.network.mend)(topology.CUT)
            daemons.settle(self.network, cut=cut)
        self._state = state

    def told(self, state: str) -> dict[str, Told]:
        """What the module said in a state, by node: once, when the state was first left or asked
        about."""
        for each in STATES:
            if each not in self._told and state not in self._told:
                self.come_to(each)
                self._remember()
        return self._told[state]

    def session(self, state: str, row: Session) -> dict[str, Any]:
        """What the module said of a session in a state."""
        told: dict[str, Any] = self.told(state)[row.node]["sessions"][f"{row.peer}_{row.place}"]
        return told

    def _remember(self) -> None:
        if self._state not in self._told:
            self._told[self._state] = self._listen()

    def _listen(self) -> dict[str, Told]:
        return {
            name: {
                "arp": node.inside.live("get_system_arp_result"),
                "routes": {
                    row.address: node.inside.live("get_routing_table_result", row.address)
                    for row in topology.REROUTED
                    if row.node == name
                },
                "sessions": bfd.told(node),
                "listing": node.inside.live("list_bfd_neighbor"),
            }
            for name, node in self.nodes.items()
        }
