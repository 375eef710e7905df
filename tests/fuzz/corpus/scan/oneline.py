class A: x = 1; y: int = 2
def f(): return 1
class B: pass; z = 3
