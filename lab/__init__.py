"""A cluster in a box: N booted machines with corosync, for demo, tests and benchmarks.

Users begin at cluster.Lab, and with the command at command.main. The programs that run as root of
it all are in machine/: the lab's host, what a node's disk is made of, and how a node boots.
"""
