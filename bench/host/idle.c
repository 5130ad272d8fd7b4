/* idle: a module program that prints nothing and reads nothing: it sleeps in
 * pause() until a signal ends it. The idle modules of bench/host/scale.sh;
 * their only output is the start line the library writes before exec. */
#include <unistd.h>

int main(void) {
    for (;;) pause();
}
