"""What `bench/run` measures: whole processes on a network of their own, and the programs that count by themselves."""
