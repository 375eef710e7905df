x = f'{a!r:>{w}.{p}}' rb'\'' """t
"q" """ f"{'nested' + f'{deep}'}"
y = F'''{
 z # c
}''' ; u = '\N{DASH}' f'\N{DASH}{x}'
