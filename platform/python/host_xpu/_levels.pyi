"""Of a portable build: the level that this process takes. A level is what was compiled for one kind of processor.

Importing it raises ImportError if CORVANE_ISA names no level that the build has and the machine offers, or if the machine
offers none.
"""

taken: str
offered: tuple[str, ...]  # by processor and operating system, lowest first
