"""Fake of the host's package `edit`."""
