"""Code intelligence for Python sources: the background scan scheduler and its helpers.

The extension modules stand in this package. Its neighbours, which a host supplies
(`pysource.scopescanner` and so on), are found in any folder `pysource` on `sys.path`.
"""

import pkgutil

__path__ = pkgutil.extend_path(__path__, __name__)
