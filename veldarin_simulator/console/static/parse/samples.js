// The kinds of command output: the command, and a sample of its output.
export const KINDS = {
  arp: {
    label: "ARP",
    command: "get system arp",
    sample: `Address          Age(min)   Hardware address    Interface
192.0.2.10       0          02:00:00:aa:bb:cc   port1
192.0.2.11       3          02:00:00:aa:bb:cd   port1 vlan10
`,
  },
  routing: {
    label: "Routing",
    command: "get router info routing-table detail 192.0.2.7",
    sample: `get router info routing-table detail 192.0.2.7
Routing entry for 192.0.2.0/24
  Known via static, distance 10, metric 0, best
  Last update 01:02:03 ago
  * 198.51.100.1, via port1

  directly connected, port2
`,
  },
  bfd: {
    label: "BFD",
    command: "get router info bfd neighbor 10.0.0.2 port1",
    sample: `get router info bfd neighbor 10.0.0.2 port1
peer 10.0.0.2 interface port1
    Local Diag: 0
    Packets received: 52 packets
    Local timers
        Detect Multiplier: 3
        Receive Interval: 250
        Transmit Interval: 250
    Remote timers
        Detect Multiplier: 3
        Receive Interval: 250
        Transmit Interval: 250
`,
  },
};
