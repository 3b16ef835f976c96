"""l2vfib_emu: run, read and steer the emulated device (l2vfib-emu) from
Python, and test daemons against it with pytest (l2vfib_emu.pytest_plugin)."""
from .device import Device, DeviceError, WaitTimeout

__all__ = ["Device", "DeviceError", "WaitTimeout"]
