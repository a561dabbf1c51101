#include "main/frame.h"

int main(int argc, char **argv)
{
    return orx::RunProcess(argc, argv);
}
