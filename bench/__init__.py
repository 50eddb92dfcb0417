"""What is claimed about speed, and how to measure it again: bench/run, overlap, ring, log, keeper
and soak. See docs/performance.md.
"""
