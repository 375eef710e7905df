"""Kinds of definitions."""

kClassDef = "class"
kFunctionDef = "def"
