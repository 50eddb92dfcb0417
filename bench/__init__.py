"""What is claimed about speed, and how to measure it again: bench/run, and the programs beside it
that each measure one thing. See docs/performance.md.
"""
