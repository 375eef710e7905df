"""Sources for tests of scopes, and edits of them."""

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
