// The serve loop arrives with the control socket; until then a serving run
// ends right after reporting readiness.
#include "main/process.h"

void serve_loop() {}
