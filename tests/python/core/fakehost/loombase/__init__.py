"""Fake of the host's package `loombase`."""
