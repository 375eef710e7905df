@deco(1, x=[2])
@staticmethod
class A[T: int, *Ts, **P](Base, metaclass=M):
    """Doc
    string."""
    x: int = 1 + \
        2
    y, (z, *rest) = call()

    @staticmethod
    def s(a, /, b=1, *args: int, c, d="x;y", **kw) -> "A[int]":
        return a

    async def m(self, k=lambda q, w=1: {q: w}):
        self.attr = k
        self.typed: dict[str, int] = {}
        async with open(k) as (f, g), h as self.i:
            pass
        def inner(): nonlocal k; k += 1
        return [v := 1 for v in k]

def f(): pass
def f(): pass
type Alias[T] = list[T]
