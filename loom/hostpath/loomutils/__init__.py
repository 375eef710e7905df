"""Small utilities of the host."""
