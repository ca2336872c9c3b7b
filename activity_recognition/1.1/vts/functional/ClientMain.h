// The other end of ClientProcess: obeys lines on standard input.
#pragma once

// Commands, each answered with "= RESULT" (the service's result, or "transport" if the call
// failed):
//   register activity|environment 1.0|1.1      a callback; events are printed as they come
//   enable ACTIVITY TYPE LATENCY_NS            disable ACTIVITY TYPE
//   extend ACTIVITY TYPE LATENCY_NS FIRST      the extended method; FIRST of the four parameters
//   init ENVIRONMENT                           exit ENVIRONMENT
//   env-enable ENVIRONMENT TYPE LATENCY_NS     env-disable ENVIRONMENT TYPE
//   churn ACTIVITY TYPE TIMES                  enable and disable so often; how many results were 0
//   flush
// A call of a callback prints "call METHOD COUNT" and for each event
// "event TYPE ID TIMESTAMP EXTRA VALUE", with - for what the record has not.
// Returns the exit status, at the end of the input.
int clientMain();
