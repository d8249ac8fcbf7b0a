// A scripted billing server for replies the simulator's account model cannot
// produce: it accepts one login on a plain channel and answers each call with
// the next scripted list of data values and the termination.
#ifndef ZEL5_TESTS_RAWSERVER_H
#define ZEL5_TESTS_RAWSERVER_H

#include <string>
#include <thread>
#include <vector>

class RawServer {
public:
    typedef std::vector<std::string> Reply; // payloads of the data values

    static std::string i32(int v);
    static std::string i64(long long v);

    explicit RawServer(std::vector<Reply> replies);
    ~RawServer();
    int port() const { return listenPort; }

private:
    void serve();

    std::vector<Reply> script;
    int listenFd = -1;
    int listenPort = 0;
    std::thread worker;
};

#endif
