"""Prints what cmake/cpython310.cmake asks of an interpreter, one fact per line.

Runs under any interpreter that the search meets, so the syntax is that of Python 2 as well.
"""

import os
import platform
import sys
import sysconfig

print("%s %s" % (platform.python_implementation(), platform.python_version()))
if sys.version_info[:2] == (3, 10):
    print(sys.executable)
    print(sysconfig.get_path("include"))
    print(sysconfig.get_path("platinclude"))
    print(sysconfig.get_config_var("EXT_SUFFIX"))

    # Some distributions let packages go to <prefix>/local instead of <prefix>.
    site_dir = sysconfig.get_path("platlib")
    prefix = sys.prefix
    if site_dir.startswith(os.path.join(prefix, "local") + os.sep):
        prefix = os.path.join(prefix, "local")
    print(prefix)
    print(sysconfig.get_config_var("MULTIARCH") or "")
    print(os.path.relpath(site_dir, prefix))
