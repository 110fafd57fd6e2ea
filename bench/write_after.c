/* Waits for one byte from a FIFO, then writes 4 KiB to stdout and 0 to stderr, and exits: thousands of
 * them run at once until the benchmark releases them together. */
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    int fifo = open(argv[1], O_RDONLY);
    char byte;
    if (fifo < 0 || read(fifo, &byte, 1) != 1) return 1;
    char block[4096];
    memset(block, 'x', sizeof block);
    return write(1, block, sizeof block) == (ssize_t)sizeof block ? 0 : 1;
}
