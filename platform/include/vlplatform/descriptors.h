// What a polling loop must tell the platform about its descriptors.
//
// waitFds keeps a kernel interest set from one call to the next and knows a
// descriptor by its number. It must therefore learn when a number it may hold
// starts to mean another open file. Every platform function that creates a
// descriptor (acceptClient, openPtyPair, the bus client's connection) records
// it here. Code that creates descriptors for the loop by other means records
// them with noteDescriptorOpened and closes them with closeDescriptor; a
// descriptor never recorded is still waited on correctly, only at the cost of
// a poll of its own on every wait.
#pragma once

// Records that `fd` has just been opened and is a new open file under its
// number. From now on waitFds keeps it in its interest set, and a set that
// waitFds filled before this call never reports it ready. Negative: nothing.
void noteDescriptorOpened(int fd);

// Records that `fd` is about to be closed, or has just been closed by code
// that does not return it (a library closing its own socket). The calling
// thread's interest set drops it first, so the number can come back with
// another open file, and a copy held by a child process can never wake the
// loop. Negative: nothing.
void forgetDescriptor(int fd);

// forgetDescriptor(fd), then close(fd). Returns what close returns (-1 with errno).
int closeDescriptor(int fd);
