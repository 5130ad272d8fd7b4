# Core platform tests.
