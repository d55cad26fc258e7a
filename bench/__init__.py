"""The service beside what a user would use instead, measured in turn in one run."""
