"""The XPU device that runs on the host's cores: its name, streams and kernel launches."""

from collections.abc import Iterator
from types import TracebackType
from typing import overload

from torch import Tensor, dtype

class LaunchRecord:
    """One kernel launch."""

    @property
    def kernel(self) -> str:
        """Function name of the launch's source location: the kernel's name."""
    @property
    def source(self) -> str:
        """Stem of the source file that launched it."""
    @property
    def label(self) -> str | None:
        """Label under which the profiler recorded it; None if it never did."""
    @property
    def global_size(self) -> tuple[int, ...]:
        """Work-items in each dimension."""
    @property
    def local_size(self) -> tuple[int, ...] | None:
        """Work-items of a work-group in each dimension; None for a basic range."""
    @property
    def sub_group_size(self) -> int | None:
        """Sub-group size that the kernel requires; None if it requires none."""
    @property
    def waited(self) -> bool:
        """Whether the host waited for the launch."""
    @property
    def queue(self) -> int:
        """Number of the queue it was submitted to."""
    @property
    def duration_ns(self) -> int:
        """Time from start to end of the kernel, in nanoseconds."""

class LaunchList:
    """Records of launches in order of their end; grows while recording."""

    def __len__(self) -> int: ...
    @overload
    def __getitem__(self, index: int) -> LaunchRecord: ...
    @overload
    def __getitem__(self, index: slice) -> list[LaunchRecord]: ...
    def __iter__(self) -> Iterator[LaunchRecord]: ...
    def __eq__(self, other: object) -> bool: ...

class LaunchRecorder:
    """Context manager of record_launches()."""

    def __enter__(self) -> LaunchList: ...
    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None, /
    ) -> None: ...

class Stream:
    """A stream of the XPU device. Work submitted to one stream runs in order.

    There are 31 beside the default stream; the 32nd Stream() is the first again.
    """

    def __init__(self) -> None: ...
    @property
    def id(self) -> int:
        """Number of the stream; 0 is the default stream."""
    def synchronize(self) -> None:
        """Waits until the stream has run everything submitted to it."""
    def __eq__(self, other: object) -> bool: ...
    def __hash__(self) -> int: ...

class StreamContext:
    """Context manager of stream()."""

    def __enter__(self) -> None: ...
    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None, /
    ) -> None: ...

def device_name() -> str:
    """Name of the device: HOST_XPU_DEVICE_NAME as it stood when the device's library was loaded, else the processor's."""

def product_library() -> str:
    """Name and version of the library that multiplies dense tiles."""

def pool_library() -> str:
    """Name and version of the library behind the thread pool."""

def instruction_set() -> str:
    """Instructions that the vector code was built for."""

def concurrency() -> int:
    """Threads that a launch runs on."""

def synchronize() -> None:
    """Waits until all streams have run everything submitted to them."""

def current_stream() -> Stream:
    """The current stream of the calling thread."""

def set_current_stream(id: int) -> None:
    """Makes the stream of this number the current stream of the calling thread."""

def stream(stream: Stream) -> StreamContext:
    """Context manager: within it `stream` is the current stream of the calling thread."""

def memory_allocated() -> int:
    """Bytes of device memory that tensors hold. A block is at most an eighth, or one cache line, larger than its tensor."""

def max_memory_allocated() -> int:
    """The most bytes that tensors held at a time, since the start or the last reset_peak_memory_stats()."""

def reset_peak_memory_stats() -> None:
    """Sets max_memory_allocated() to memory_allocated()."""

def memory_cached() -> int:
    """Bytes of freed blocks that are kept for reuse."""

def empty_cache() -> None:
    """Gives freed blocks, which are kept for reuse, back to the system."""

def record_launches() -> LaunchRecorder:
    """Records the kernel launches of all threads and queues between entering and leaving the context.

    The context yields the list of their records. The list fills while the context is open and stays readable after it.
    Contexts may be nested; each has its own list. A recorder that is recording already raises ValueError when entered.
    """

def rms_norm(x: Tensor, weight: Tensor, epsilon: float, dtype: dtype, delta: Tensor | None = None) -> Tensor:
    """Root-mean-square norm over the last dimension of x, float (..., size), contiguous on XPU, times weight, float (size,).

    Computed in float, rounded to dtype (float, half or bfloat16). A delta of x's shape is added to x first, in place.
    RuntimeError: other shapes, types or devices.
    """

def row_attention(query: Tensor, keys: Tensor, values: Tensor) -> Tensor:
    """Attention of one position: query (1, heads, 1, head_size), keys and values (1, kv_heads, length, head_size).

    All float, half or bfloat16 with contiguous rows, head_size a multiple of 16; heads / kv_heads query heads share a key
    and value head. softmax(query key^T / sqrt(head_size)) value in float, rounded once: (1, heads * head_size).
    RuntimeError: other shapes, types or devices.
    """
