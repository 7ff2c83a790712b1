"""The command `corvane`."""
