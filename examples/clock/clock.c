/* clock: prints the time once a second. */
#include <stdio.h>
#include <time.h>
#include <unistd.h>

int main(void) {
    for (;;) {
        time_t now = time(NULL);
        char text[64];
        strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", localtime(&now));
        printf("clock: %s\r\n", text);
        fflush(stdout);
        sleep(1);
    }
}
