# Finds the built module: ctest puts the build directory on PYTHONPATH;
# by hand, KYSTORE_BUILD_DIR (default build/) does.  KYSTORE_CLI names the
# kystore command for the tests that share files with it.
import os
import subprocess
import sys

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.environ.get("KYSTORE_BUILD_DIR", os.path.join(ROOT, "build")))
CLI = os.environ.get("KYSTORE_CLI") or os.path.join(ROOT, "build", "tools", "kystore")


@pytest.fixture(params=[64, 32])
def width(request):
    return request.param


@pytest.fixture
def path(tmp_path):
    return str(tmp_path / "store.kys")


@pytest.fixture
def cli():
    if not os.access(CLI, os.X_OK):
        pytest.skip("the kystore command is not built")

    def run(*args, data=None):
        done = subprocess.run([CLI, *args], input=data, capture_output=True)
        assert done.returncode == 0, done.stderr
        return done.stdout
    return run
