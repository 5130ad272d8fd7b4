# Ini parser and zip archive tests.
