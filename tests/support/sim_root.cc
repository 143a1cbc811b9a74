#include "support/sim_root.h"

#include "platform/paths.h"
#include "sim/fields.h"

#include <filesystem>
#include <stdexcept>

namespace fs = std::filesystem;

SimRoot::SimRoot() : root_(dir_.path())
{
    make();
}

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
    std::vector<SimCall> out;
    const std::string text = read_text_file(abs(sim::JOURNAL));
    std::vector<std::string> f;
    for (std::size_t start = 0, end; start < text.size(); start = end + 1) {
        end = text.find('\n', start);
        if (end == std::string::npos)
            throw std::runtime_error("unterminated journal line: " + text.substr(start));
        const std::string line = text.substr(start, end - start);
        std::size_t n = 0;
        bool ok = sim::split_fields(line, f) && f.size() >= 2 && !f[1].empty() &&
                  f[1].find_first_not_of("0123456789") == std::string::npos;
        if (ok) {
            n = std::stoul(f[1]);
            ok = f.size() == n + 2 || f.size() == n + 3;
        }
        if (!ok)
            throw std::runtime_error("malformed journal line: " + line);
        SimCall call{f[0], std::vector<std::string>(f.begin() + 2, f.begin() + 2 + n), std::nullopt};
        if (f.size() == n + 3)
            call.input = f.back();
        out.push_back(std::move(call));
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
    std::error_code ec;
    fs::create_hard_link(stub, target, ec);
    if (ec)
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
