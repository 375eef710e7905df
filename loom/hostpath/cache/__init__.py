"""Text of files that are open in the host."""
