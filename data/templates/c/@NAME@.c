#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

/* The service manager runs it in the application's directory, as the application's own user. */
int main(void) {
    /* Written in place: the page keeps the owner and group that the web server needs. */
    FILE *page = fopen("html/status.txt", "w");
    time_t now = time(NULL);
    if (!page || fprintf(page, "@NAME@ was started at %s", ctime(&now)) < 0 || fclose(page) != 0) {
        perror("html/status.txt");
        return EXIT_FAILURE;
    }
    puts("@NAME@ is at work");
    fflush(stdout);
    for (;;)
        pause();
}
