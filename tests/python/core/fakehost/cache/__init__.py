"""Fake of the host's package `cache`."""
