"""scripts/release makes a tag and an archive of a version that stands everywhere and is committed,
and refuses any other."""

import os
import re
import shutil
import subprocess
import tarfile

from package import SOURCE, WORK, check, run

os.environ["GIT_CONFIG_GLOBAL"] = "/dev/null"
TREE = WORK / "release"
FILES = ["CMakeLists.txt", "CHANGELOG.md", "debian/changelog", "python/pyproject.toml",
         "tests/tool/usage.transcript", "tests/package/versions.py", "scripts/release"]
# What is wrong, and what is said about that.
WRONG = [
    ("CMakeLists.txt", r"Tovik VERSION \S+", "Tovik VERSION 0.0.1", "the versions differ"),
    ("python/pyproject.toml", r"\nversion = .*", "", "python/pyproject.toml: none"),
    ("CHANGELOG.md", r", 2026-01-31", ", not yet released", "CHANGELOG.md has no heading"),
    ("debian/changelog", "unstable", "UNRELEASED", "debian/changelog says UNRELEASED"),
    ("CHANGELOG.md", r"\Z", "\n", "there are changes that are not committed"),
]


def git(*words):
    return run(["git", "-C", TREE, *words])


def edit(file, pattern, text):
    before = (TREE / file).read_text()
    after = re.sub(pattern, text, before, count=1)
    check(after != before, f"{file} has no {pattern}")
    (TREE / file).write_text(after)


def release(*words):
    return subprocess.run([TREE / "scripts/release", *words], text=True, capture_output=True,
                          timeout=60)


def check_refusal(version, words):
    done = release(version)
    check(done.returncode != 0 and words in done.stderr, f"{words}: {done}")


shutil.rmtree(TREE, ignore_errors=True)
for name in FILES:
    (TREE / name).parent.mkdir(parents=True, exist_ok=True)
    shutil.copy(SOURCE / name, TREE / name)
(TREE / ".gitignore").write_text("/build\n")
(TREE / "CHANGELOG.md").write_text("# Changes\n\n## 1.2.3, 2026-01-31\n")
(TREE / "debian/changelog").write_text("tovik (1.2.3-1) unstable; urgency=medium\n")
(TREE / "tests/tool/usage.transcript").write_text("$ tovik --version\ntovik 1.2.3\n")
edit("CMakeLists.txt", r"project\(Tovik VERSION \S+", "project(Tovik VERSION 1.2.3")
edit("python/pyproject.toml", r'\nversion = .*', '\nversion = "1.2.3"')
git("init", "--quiet")
git("config", "user.name", "Test")
git("config", "user.email", "test@example.org")
git("add", "--all")
git("commit", "--quiet", "--message", "A release")

check(release().returncode == 2 and release("next").returncode == 2, "wrong usage")
check_refusal("1.2.4", "CMakeLists.txt has version 1.2.3")
for file, pattern, text, words in WRONG:
    edit(file, pattern, text)
    check_refusal("1.2.3", words)
    git("checkout", "--quiet", ".")
check(git("tag") == "", git("tag"))

done = release("1.2.3")
check(done.returncode == 0, f"{done}")
check(git("rev-parse", "v1.2.3^{commit}") == git("rev-parse", "HEAD"), "the tag is elsewhere")
with tarfile.open(TREE / "build/tovik-1.2.3.tar.gz") as archive:
    packed = {name for name in archive.getnames() if archive.getmember(name).isfile()}
check(packed == {f"tovik-1.2.3/{name}" for name in [*FILES, ".gitignore"]}, f"{packed}")
check_refusal("1.2.3", "the tag v1.2.3 is here")
