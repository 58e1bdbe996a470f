// Does with memory pools what the bytes say, and compares them with a plain model after each operation.

#include "fuzz/PoolOperations.h"
#include "fuzz/Support.h"

extern "C" int LLVMFuzzerTestOneInput(const char* data, std::size_t size)
{
    const std::string fault = poolFaultOf({data, size});
    require(fault.empty(), fault.c_str());
    return 0;
}
