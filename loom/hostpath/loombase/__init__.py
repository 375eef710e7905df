"""Base package of the host: object lifetime and signals, file locations, mime types."""
