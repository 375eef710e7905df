"""Inference: what names and expressions mean, from what the info cache holds of scopes."""
