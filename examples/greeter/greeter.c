/* greeter: greets once, then reports every few seconds how long it has run. */
#include <stdio.h>
#include <unistd.h>

int main(void) {
    printf("greeter: hello from a module\r\n");
    fflush(stdout);
    for (unsigned seconds = 5;; seconds += 5) {
        sleep(5);
        printf("greeter: running for %u s\r\n", seconds);
        fflush(stdout);
    }
}
