// Sim_trace.cpp: trace file lines with time stamps.
#include "Sim_trace.h"

#include <cstdarg>

namespace vqxsim {

Sim_trace::Sim_trace(const std::string& path) : start(std::chrono::steady_clock::now())
{
    if (path.empty())
        return;
    file = std::fopen(path.c_str(), "w");
    open_failed = file == nullptr;
}

Sim_trace::~Sim_trace()
{
    if (file)
        std::fclose(file);
}

void Sim_trace::line(const char* format, ...)
{
    if (!file)
        return;
    auto us = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count();
    std::lock_guard<std::mutex> hold(mutex);
    std::fprintf(file, "%6lld.%06lld ", static_cast<long long>(us / 1000000), static_cast<long long>(us % 1000000));
    va_list args;
    va_start(args, format);
    std::vfprintf(file, format, args);
    va_end(args);
    std::fputc('\n', file);
    std::fflush(file);
}

}  // namespace vqxsim
