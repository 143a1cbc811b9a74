#include "support/suite.h"

#include "platform/paths.h"
#include "sim/fields.h"

namespace fs = std::filesystem;

SimRoot::~SimRoot()
{
    // A test may have taken write permission away to provoke failures; the
    // temporary directory's removal needs it back.
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(root_, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec))
        if (it->is_directory(ec) && !it->is_symlink(ec))
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
}

void SimRoot::make()
{
    if (run_process({source_dir() + "/sim/make-root", root_, "--build", binary_dir()}, "", {}, 120000).status != 0)
        throw std::runtime_error("make-root " + root_ + " failed");
}

std::vector<SimCall> SimRoot::calls() const
{
    // A line: who, argc, the arguments and maybe the input, tab-separated.
    std::vector<SimCall> out;
    std::istringstream in(read_text_file(abs(sim::JOURNAL)));
    std::vector<std::string> f;
    for (std::string line; std::getline(in, line);) {
        const bool split = sim::split_fields(line, f) && f.size() >= 2;
        const std::size_t n = split ? std::strtoul(f[1].c_str(), nullptr, 10) : 0;
        if (!split || in.eof() || f[1] != std::to_string(n) || (f.size() != n + 2 && f.size() != n + 3))
            throw std::runtime_error("malformed or unterminated journal line: " + line);
        out.push_back({f[0], std::vector<std::string>(f.begin() + 2, f.begin() + 2 + n),
                       f.size() == n + 3 ? std::optional(f.back()) : std::nullopt});
    }
    return out;
}

std::vector<SimCall> SimRoot::calls(const std::string& who) const
{
    std::vector<SimCall> some = calls();
    std::erase_if(some, [&](const SimCall& c) { return c.who != who; });
    return some;
}

void SimRoot::grant_everyone()
{
    write_file(PATH_CALLER_POLICY, "[VexProServer-vexprod]\n* = *\n\n[VexProServer_send_mail-vexprod]\n* = *\n");
}

void SimRoot::add_program(const std::string& platform_path)
{
    const std::string stub = abs(std::string(sim::STATE_DIR) + "/bin/vexprod-sim-stub");
    fs::path target = abs(platform_path);
    fs::create_directories(target.parent_path());
    fs::copy_file(stub, target);
}

void SimRoot::write_file(const std::string& platform_path, const std::string& text)
{
    fs::path host = abs(platform_path);
    fs::create_directories(host.parent_path());
    if (!write_text_file(host, text))
        throw std::runtime_error("cannot write " + platform_path + " in the simulated root");
}

std::string SimRoot::read_file(const std::string& platform_path) const
{
    if (!exists(platform_path))
        throw std::runtime_error("no file " + platform_path + " in the simulated root");
    return read_text_file(abs(platform_path));
}

void SimRoot::remove(const std::string& platform_path)
{
    std::error_code ec;
    fs::remove_all(abs(platform_path), ec);
}
