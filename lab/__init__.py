"""A cluster in a box: N real corosync nodes on one machine, for demo, tests and benchmarks.

Users begin at cluster.Lab. Outside the lab run cluster, node, bus, agreement, diagnosis, state and
processes; the lab's own processes are supervisor (the switch, the power buttons), machine (pid 1 of
a node) and recorder (D-Bus signals); the other modules are shared.

Nothing is imported here: the processes of a lab start often, and need only their own modules.
"""
