"""torch.save, torch.load and pickling of XPU tensors, for releases of PyTorch that know no location "xpu"."""

import functools
import re

import torch
from torch import UntypedStorage

PRIORITY = 25  # of this location among those that PyTorch asks in turn; the CPU's has 10, which comes first


def location_of(storage) -> str | None:
    return str(storage.device) if storage.device.type == "xpu" else None


def restore(storage, location: str):
    """The storage moved to an XPU location; None if the location is of another kind."""
    if not re.fullmatch(r"xpu(:\d+)?", location):
        return None
    return UntypedStorage(storage.nbytes(), device=location).copy_(storage, False)


def complete() -> None:
    torch.serialization.register_package(PRIORITY, location_of, restore)

    # The older format of files, which pickling uses: storages write and read their bytes themselves.
    write, read = UntypedStorage._write_file, UntypedStorage._set_from_file

    @functools.wraps(write)
    def write_file(self, *arguments):
        return write(self.cpu() if self.device.type == "xpu" else self, *arguments)

    @functools.wraps(read)
    def set_from_file(self, *arguments):
        if self.device.type != "xpu":
            return read(self, *arguments)
        return self.copy_(read(self.cpu(), *arguments), False)

    UntypedStorage._write_file, UntypedStorage._set_from_file = write_file, set_from_file
