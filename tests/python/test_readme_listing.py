"""README.md lists the module's docstrings as the module gives them."""

import importlib.util
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


def load_listing_script():
    script = importlib.util.spec_from_file_location(
        "python_api_listing", ROOT / "scripts" / "python-api-listing.py")
    module = importlib.util.module_from_spec(script)
    script.loader.exec_module(module)
    return module


def test_readme_lists_every_docstring_of_the_module():
    listing = load_listing_script()
    readme = (ROOT / "README.md").read_text(encoding="utf-8")
    assert listing.replace_block(readme, listing.listing()) == readme, (
        "README.md's Python listing differs from the module's docstrings: run "
        "PYTHONPATH=build/python scripts/python-api-listing.py --update README.md")
