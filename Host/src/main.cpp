#include "Program.h"

int main(int argc, char** argv)
{
    return Host::runProgram(argc, argv);
}
