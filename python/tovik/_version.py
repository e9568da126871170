"""The package's version: what pip has noted, or, in a source tree, pyproject.toml."""

import importlib.metadata
import pathlib
import re


def find() -> str:
    project = pathlib.Path(__file__).parents[1] / "pyproject.toml"
    if project.exists():
        found = re.search(r'^name = "tovik"\nversion = "(.+)"$', project.read_text(), re.M)
        if found:
            return found[1]
    return importlib.metadata.version("tovik")
