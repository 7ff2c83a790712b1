"""python -m corvane_runtime: the command `corvane`."""

from .cli.main import main

if __name__ == "__main__":
    main()
