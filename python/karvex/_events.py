"""Fan-out of the library's callbacks to a Python callback, iterators and asyncio."""
from __future__ import annotations

import asyncio
import queue
import threading
from typing import Any, Callable, Optional, Tuple

from ._errors import check


class Hub:
    """One library callback registration shared by every Python consumer.

    The library keeps one callback per adapter (and one for hot-plug), and
    re-registering drops events not yet delivered. So the package registers
    one trampoline while anybody listens and hands each event to the
    iterators first, then to the user's callback.

    ``register()`` and ``unregister()`` return a status. The library thread
    that delivers events can neither register nor unregister (the library
    refuses: it would join itself), so changes made from inside a callback
    only change the Python side; the registration catches up on the next
    change made from another thread, or at close.
    """

    def __init__(self, register: Callable[[], int], unregister: Callable[[], int], what: str) -> None:
        self._register = register
        self._unregister = unregister
        self._what = what
        self._state_lock = threading.RLock()  # held briefly, never across a library call
        self._reg_lock = threading.Lock()  # serialises registration changes
        self._sinks: Tuple[Callable[[Any], None], ...] = ()  # read without a lock by deliver()
        self._callback: Optional[Callable[..., Any]] = None
        self._registered = False
        self._closed = False
        self._delivering = threading.local()  # set on the library's thread while it delivers

    # ---- on the library's thread
    def deliver(self, *item: Any) -> None:
        self._delivering.active = True
        try:
            for sink in self._sinks:
                sink(item)
            callback = self._callback
            if callback is not None:
                # An exception propagates to ctypes, which reports it through
                # sys.unraisablehook and returns to the library normally.
                callback(*item)
        finally:
            self._delivering.active = False

    # ---- on application threads
    def set_callback(self, callback: Optional[Callable[..., Any]]) -> None:
        with self._state_lock:
            self._callback = callback
        self._sync()

    def add_sink(self, sink: Callable[[Any], None]) -> None:
        with self._state_lock:
            self._sinks = self._sinks + (sink,)
        self._sync()

    def remove_sink(self, sink: Callable[[Any], None], sync: bool = True) -> None:
        """Stops handing events to sink. sync=False (from a finaliser, which
        may run anywhere) leaves the library registration to the next change."""
        with self._state_lock:
            old = self._sinks
            self._sinks = tuple(s for s in old if s is not sink)
        del old  # a finaliser this runs must not find the lock held
        if sync:
            self._sync()

    def closed(self) -> None:
        """The library dropped the registration (the adapter was closed)."""
        with self._state_lock:
            self._closed = True
            self._registered = False
            dropped = (self._sinks, self._callback)
            self._sinks = ()
            self._callback = None
        del dropped  # outside the lock: dropping them may run finalisers

    def _wanted(self) -> bool:
        with self._state_lock:
            return not self._closed and (bool(self._sinks) or self._callback is not None)

    def _sync(self) -> None:
        if getattr(self._delivering, "active", False):
            return
        with self._reg_lock:
            while True:
                want = self._wanted()
                if want == self._registered or self._closed:
                    return
                st = self._register() if want else self._unregister()
                if st != 0 and not self._closed:
                    with self._state_lock:
                        if want:
                            # Nobody can listen: forget the consumer that asked.
                            self._callback = None
                            self._sinks = ()
                    check(st, self._what)
                self._registered = want


class EventIterator:
    """Events as an iterator; ends when no event came within ``timeout`` seconds.

    Listening starts when the iterator is created, not at the first
    ``next()``. Use it in a ``with`` block, or let the ``for`` loop end, to
    stop listening.
    """

    def __init__(self, hub: Hub, timeout: Optional[float]) -> None:
        if timeout is not None and timeout < 0:
            raise ValueError("timeout must be >= 0 or None")
        self._hub = hub
        self._timeout = timeout
        self._queue: "queue.SimpleQueue[Any]" = queue.SimpleQueue()
        self._sink = self._queue.put
        self._open = True
        hub.add_sink(self._sink)

    def __iter__(self) -> "EventIterator":
        return self

    def __next__(self) -> Any:
        if not self._open:
            raise StopIteration
        try:
            return self._queue.get(timeout=self._timeout)
        except queue.Empty:
            self.close()
            raise StopIteration from None

    def close(self, sync: bool = True) -> None:
        """Stops listening; later next() calls end the iteration."""
        if self._open:
            self._open = False
            self._hub.remove_sink(self._sink, sync)

    def __enter__(self) -> "EventIterator":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.close()

    def __del__(self) -> None:
        try:
            self.close(sync=False)
        except Exception:
            pass


class AsyncEventIterator:
    """Events as an asynchronous iterator for the running event loop.

    Ends when no event came within ``timeout`` seconds (None: never).
    Create it inside a coroutine; listening starts at once.
    """

    def __init__(self, hub: Hub, timeout: Optional[float]) -> None:
        if timeout is not None and timeout < 0:
            raise ValueError("timeout must be >= 0 or None")
        self._loop = asyncio.get_running_loop()
        self._hub = hub
        self._timeout = timeout
        self._queue: "asyncio.Queue[Any]" = asyncio.Queue()
        self._open = True
        hub.add_sink(self._sink)

    def _sink(self, item: Any) -> None:
        # On the library's thread: hand the event to the loop's thread.
        try:
            self._loop.call_soon_threadsafe(self._queue.put_nowait, item)
        except RuntimeError:
            pass  # the loop is closed; nobody is waiting any more

    def __aiter__(self) -> "AsyncEventIterator":
        return self

    async def __anext__(self) -> Any:
        if not self._open:
            raise StopAsyncIteration
        try:
            return await asyncio.wait_for(self._queue.get(), self._timeout)
        except asyncio.TimeoutError:
            self.close()
            raise StopAsyncIteration from None

    def close(self, sync: bool = True) -> None:
        """Stops listening."""
        if self._open:
            self._open = False
            self._hub.remove_sink(self._sink, sync)

    async def aclose(self) -> None:
        self.close()

    async def __aenter__(self) -> "AsyncEventIterator":
        return self

    async def __aexit__(self, *exc: Any) -> None:
        self.close()

    def __del__(self) -> None:
        try:
            self.close(sync=False)
        except Exception:
            pass
