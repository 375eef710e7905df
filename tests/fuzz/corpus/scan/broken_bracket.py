x = foo(1,
def g(a:
    y = [1, {2
class C(
    z = 3
