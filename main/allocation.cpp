// The daemon asks for memory without exceptions only. The run-time's own operator new would bring
// the whole of them into the binary.
#include <cstdlib>
#include <new>

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return malloc(size == 0 ? 1 : size);
}

void operator delete(void* memory) noexcept {
    free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    free(memory);
}

void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
    free(memory);
}
