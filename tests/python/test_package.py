"""The package as pip installs it, without a network."""

import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

import support

PYTHON = os.environ["PYTHON"]  # one that has pip


class Installed(unittest.TestCase):
    def test_works_from_where_pip_has_put_it(self):
        with tempfile.TemporaryDirectory() as folder:
            source, target = pathlib.Path(folder, "python"), pathlib.Path(folder, "target")
            shutil.copytree(support.SOURCE / "python", source)  # setuptools writes beside it
            subprocess.run([PYTHON, "-m", "pip", "install", "--quiet", "--no-index",
                            "--no-build-isolation", "--no-deps", "--disable-pip-version-check",
                            "--root-user-action=ignore", "--target", target, source],
                           check=True, timeout=100)
            self.assertTrue((target / "tovik" / "py.typed").exists())
            script = ("import tovik, tovik.testing\n"
                      f"with tovik.testing.Server('{support.unique_name()}x') as server:\n"
                      f"    print(tovik.__file__)\n")
            found = subprocess.run([PYTHON, "-I", "-c",
                                    f"import sys; sys.path.insert(0, {str(target)!r})\n" + script],
                                   stdout=subprocess.PIPE, text=True, check=True, timeout=60).stdout
            self.assertEqual(found.strip(), str(target / "tovik" / "__init__.py"))
