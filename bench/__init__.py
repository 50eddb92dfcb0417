"""What is claimed about speed, and how to measure it again: bench/run, overlap, ring, log, keeper
and tie-breaker. See docs/performance.md.
"""
