"""The program on a system without a virtual USB bus. What it does on one is tested in the lab."""

import os
import subprocess
from pathlib import Path

import pytest

SIM = os.environ["KESTREL_SIM"]


@pytest.mark.skipif(Path("/sys/devices/platform/vhci_hcd.0").exists(), reason="this system has a virtual USB bus")
def test_the_missing_kernel_module_is_named():
    done = subprocess.run([SIM, "--usb", "--timeout", "5"], capture_output=True, text=True, timeout=10, check=False)
    assert done.returncode == 1
    assert done.stdout == ""
    assert done.stderr == (
        "kestrel-sim: this kernel has no virtual USB host controller: load the module vhci_hcd (modprobe vhci-hcd)\n"
    )
