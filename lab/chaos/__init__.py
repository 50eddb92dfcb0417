"""Random faults on a lab, and what must hold after each burst of them; see docs/reliability.md."""
