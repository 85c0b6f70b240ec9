"""The views' core, one module per job: reading captures and progress
(`capture`), the clock model (`clock`), the survey of processes, threads and
what they did (`survey`), stacks and symbols (`samples`), the timeline's model
(`trace`) and its writers through `sink` (`trace_json`, `trace_perfetto`)."""
