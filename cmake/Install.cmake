# Filled in with the package config.
