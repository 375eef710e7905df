"""Mime types that the analysis can read."""

kAnalyzableMimeTypes = frozenset({"text/x-python"})
