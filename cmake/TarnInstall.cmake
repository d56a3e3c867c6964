# Filled by the installation of headers, package files and programs.
