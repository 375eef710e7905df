"""From module names to files: where imports lead."""
