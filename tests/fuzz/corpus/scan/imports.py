import os, os.path as p, a . b
from . import x
from ...y.z import (u as v,
    w,  # why
)
from q import *
if TYPE: from r import s as t; import late
