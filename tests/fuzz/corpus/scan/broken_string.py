a = '''never
b = 1
c = 'cut
d = f'{cut
e = """x"""name
