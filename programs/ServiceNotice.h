#pragma once

// Tells the service manager that started this process how it stands: "READY=1" when clients can
// connect. Does nothing where no manager asked for it, and never fails: a manager that has gone is
// no reason not to serve.
void notifyServiceManager(const char* state);
