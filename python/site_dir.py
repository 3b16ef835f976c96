"""Prints where the Python running it finds packages under an install prefix.

    python3 site_dir.py PREFIX

The directory of its sys.path that lies in PREFIX/lib (Debian's python3:
/usr/lib/python3/dist-packages for /usr, /usr/local/lib/python3.X/
dist-packages for /usr/local); else its purelib for that prefix
(PREFIX/lib/python3.X/site-packages), which PYTHONPATH then names.
"""
import os
import sys
import sysconfig

prefix = os.path.realpath(sys.argv[1])
for entry in sys.path:
    if entry.endswith("-packages") and os.path.realpath(entry).startswith(os.path.join(prefix, "lib")):
        print(entry)
        break
else:
    print(sysconfig.get_path("purelib", "posix_prefix", {"base": prefix, "platbase": prefix}))
