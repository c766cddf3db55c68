/* runstat [-o FILE] CMD [ARG...]: runs CMD once (its standard output to FILE, else to
 * /dev/null) and prints its wall time in seconds and its peak resident memory in KiB.
 *
 * The child is forked from this small process rather than from a script interpreter: a child's
 * peak resident size starts from that of the process it was forked from, so an interpreter's
 * own tens of megabytes would be counted as the command's. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char **argv) {
    const char *out = "/dev/null";
    int first = 1;
    if (argc > 2 && strcmp(argv[1], "-o") == 0) {
        out = argv[2];
        first = 3;
    }
    if (first >= argc) {
        fprintf(stderr, "usage: runstat [-o FILE] CMD [ARG...]\n");
        return 2;
    }
    struct timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    pid_t pid = fork();
    if (pid < 0) {
        perror("fork");
        return 2;
    }
    if (pid == 0) {
        int fd = open(out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0 || dup2(fd, STDOUT_FILENO) < 0) {
            perror(out);
            _exit(127);
        }
        close(fd);
        execvp(argv[first], argv + first);
        perror(argv[first]);
        _exit(127);
    }
    int status;
    struct rusage usage;
    if (wait4(pid, &status, 0, &usage) < 0) {
        perror("wait4");
        return 2;
    }
    clock_gettime(CLOCK_MONOTONIC, &end);
    double seconds = (double)(end.tv_sec - start.tv_sec) + (end.tv_nsec - start.tv_nsec) / 1e9;
    printf("%.4f %ld\n", seconds, usage.ru_maxrss);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fprintf(stderr, "runstat: %s failed (status %d)\n", argv[first], status);
        return 1;
    }
    return 0;
}
