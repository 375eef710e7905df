"""Fake of the host's package `guiutils`."""
