"""A stand-alone host for the scan scheduler `pysource.scancoordinator`, and the `loom` command."""
