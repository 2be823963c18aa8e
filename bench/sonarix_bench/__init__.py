"""The benchmarks of `bench/run`: whole processes on a separate network, and benchmark programs."""
