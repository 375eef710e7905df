"""Fake of the host's package `loomutils`."""
