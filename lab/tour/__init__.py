"""The tour behind "./demo": a service follows the master, and a client asks it all along."""
