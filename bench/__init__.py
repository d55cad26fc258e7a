"""The service beside the tools that could replace it, measured in turn in one run."""
