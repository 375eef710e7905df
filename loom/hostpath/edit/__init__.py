"""Editors of the host."""
