"""The package as pip installs it, and the archive of its source; without a network."""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

import support
import tovik

PYTHON = os.environ["PYTHON"]  # one that has pip


class Case(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.source = self.folder / "python"
        shutil.copytree(support.PACKAGE, self.source)  # setuptools writes beside it

    def run_python(self, *arguments, **options):
        done = subprocess.run([PYTHON, *arguments], stdout=subprocess.PIPE, text=True,
                              stderr=subprocess.STDOUT, timeout=100, **options)
        self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout


class Installed(Case):
    def test_works_from_where_pip_has_put_it(self):
        target = self.folder / "target"
        self.run_python("-m", "pip", "install", "--quiet", "--no-index", "--no-build-isolation",
                        "--no-deps", "--disable-pip-version-check", "--root-user-action=ignore",
                        "--target", target, self.source)
        self.assertTrue((target / "tovik" / "py.typed").exists())
        script = (f"import sys; sys.path.insert(0, {str(target)!r})\n"
                  "import tovik, tovik.testing\n"
                  f"with tovik.testing.Server('{support.unique_name()}x') as server:\n"
                  f"    print(tovik.__file__, tovik.__version__)\n")
        version = tovik.__version__
        self.assertRegex(version, r"^\d+\.\d+\.\d+")
        self.assertEqual(self.run_python("-I", "-c", script).strip(),
                         f"{target / 'tovik' / '__init__.py'} {version}")


class Archive(Case):
    def test_has_tests_that_pass_where_it_is_unpacked(self):
        build = "from setuptools import build_meta; print(build_meta.build_sdist('.'))"
        archive = self.run_python("-c", build, cwd=self.source).split()[-1]
        shutil.unpack_archive(self.source / archive, self.folder / "unpacked")
        (unpacked,) = (self.folder / "unpacked").iterdir()
        self.assertEqual(unpacked.name, f"tovik-{tovik.__version__}")
        environment = {name: value for name, value in os.environ.items()
                       if name != "TOVIK_PYTHON_PATH"}
        done = subprocess.run([sys.executable, "-B", "-m", "unittest", "-v", "test_wire",
                               "test_admission", "test_server", "test_readme"],
                              cwd=unpacked / "tests", text=True, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=100, env=environment)
        self.assertEqual(done.returncode, 0, done.stdout)
        self.assertEqual({path.name for path in (unpacked / "tests").glob("test_*.py")},
                         {f"test_{name}.py" for name in (
                             "admission", "aio", "client", "proxy", "readme", "server", "service",
                             "wire")})
