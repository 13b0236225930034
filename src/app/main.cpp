#include "app/service.h"

int main(int argc, char** argv)
{
    RunService(argc, argv);
}
