"""What is claimed about speed, and how to measure it again: bench/run. See docs/performance.md."""
