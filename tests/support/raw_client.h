// A client that speaks the directive protocol by hand, step by step, so tests
// can drive a service exactly and misbehave on purpose at any point.
#pragma once

class RawClient : NoCopy {
public:
    ~RawClient() { close_now(); }

    bool connect_to(const std::string& sockfile);
    int fd() const { return fd_; }
    void close_now();

    // The type of the next whole directive, or -1 (timeout or hang-up).
    int next_type(int timeout_ms = 5000);
    bool send_directive(uint8_t type, uint8_t flags = 0, const std::string& data = "");
    bool send_bytes(const void* data, size_t len);
    bool send_fd(int fd);
    // True when the peer has closed the connection within timeout_ms.
    bool closed_by_peer(int timeout_ms = 5000);

private:
    int fd_ = -1;
};

// A memory file holding text, as a caller would send it (owned by the caller).
int make_request_memfd(const std::string& text);
// The whole content of a descriptor's file from offset 0.
std::string read_fd_text(int fd);

// One complete request by hand: connect, wait for the accept, send the name,
// the memory file and maybe an extra descriptor, wait for the reply. Nothing
// when a step failed.
std::optional<std::string> raw_call(const std::string& sockfile, const std::string& name, const std::string& request,
                                    int extra_fd = -1);
