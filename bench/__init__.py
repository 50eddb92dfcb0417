"""What is claimed about speed, and how to measure it again: bench/run, overlap and ring. See
docs/performance.md."""
