// The built-in demo capture of the analyzer's main job.
#pragma once

// Generates the demo capture, analyses it, prints the figures and the
// comparison of the decided symbols with the transmitted ones. Returns the
// process exit code.
int runDemo(bool dump);
