"""Sources for tests of scopes, and edits of them."""

import random

from cache.textcache import CTextCache

kSample = '''\
import os


def first(a, b=1):
    inner = a

    def nested(c):
        return c

    return nested


class Shape(Base):
    """A shape."""

    sides = 0

    def __init__(self, name):
        self.name = name
        self.area = 0

    @staticmethod
    def make():
        return Shape("made")

    @property
    def size(self):
        return self.area

    @size.setter
    def size(self, value):
        self.area = value

    class Corner:
        def where(self):
            self.place = 1


if os.name:

    def chosen():
        return 1

else:

    def chosen():
        other = 2
        return other


last = 1
'''


def replace(buffer: CTextCache, old: str, new: str) -> None:
    """Replace the first occurrence of a text in a buffer."""
    start = buffer.GetText().index(old)
    buffer.Replace(start, start + len(old), new)


def type_in(buffer: CTextCache, behind: str, text: str) -> None:
    """Type behind the first occurrence of a text, a key a change."""
    at = buffer.GetText().index(behind) + len(behind)
    for offset, key in enumerate(text):
        buffer.Replace(at + offset, at + offset, key)


# What careless hands put into a text.
kPieces = (
    "x = 1\n",
    "\n",
    "    ",
    "def ",
    "class N:\n",
    "(",
    ")",
    ":",
    "'''",
    "# c\n",
    "    y = 2\n",
    "        z = 3\n",
    "def g():\n    pass\n",
    "    def m(self):\n        self.q = 1\n",
    "a",
    "@deco\n",
    "    @staticmethod\n",
    "if x:\n",
    "return 1\n",
)


def scribble(buffer: CTextCache, rng: random.Random) -> None:
    """Make one change that no author would: put a piece in anywhere, or take one out."""
    text = buffer.GetText()
    at = rng.randrange(len(text) + 1)
    line_start = text.rfind("\n", 0, at) + 1
    if rng.random() < 0.5:
        at = line_start if rng.random() < 0.7 else at
        buffer.Replace(at, at, rng.choice(kPieces))
    elif rng.random() < 0.5:
        line_end = text.find("\n", at) + 1 or len(text)
        buffer.Replace(line_start, line_end, "")
    else:
        buffer.Replace(at, min(len(text), at + rng.choice((1, 3, 10))), "")
