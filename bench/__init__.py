"""Compares the service with tools that could replace it, measured in turn in one run."""
