"""A small Llama runtime on the module's packed linear layers: reading a GGUF file, the layers, generating text."""
