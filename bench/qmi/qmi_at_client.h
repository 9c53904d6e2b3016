// A QMI client of the AT service, in this process.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "qmi_cci.h"

namespace bench {

struct QmiAnswer {
    bool arrived = false;  // false: the request could not be sent, or the service went away
    int result = 0;        // 0, or 1 with an error number
    int error = 0;
    std::string text;
};

class QmiAtClient {
  public:
    using OnIndication = std::function<void(const std::string& text)>;
    using OnAnswer = std::function<void(const QmiAnswer& answer)>;

    QmiAtClient() = default;
    // Unsolicited text; called on a thread of the client's own.
    explicit QmiAtClient(OnIndication on_indication) : on_indication_(std::move(on_indication)) {}
    ~QmiAtClient() { disconnect(); }
    QmiAtClient(const QmiAtClient&) = delete;
    QmiAtClient& operator=(const QmiAtClient&) = delete;

    // Waits at most this long for the service to be there.
    bool connect(std::chrono::milliseconds at_most);
    // Requests without an answer are answered with `arrived` false.
    void disconnect();
    // `text` is sent as it is, its line end included; past 1,024 bytes it is cut. `announced` may
    // tell the service another length. Waits for the answer.
    QmiAnswer ask(std::string_view text) { return ask(text, text.size()); }
    QmiAnswer ask(std::string_view text, std::size_t announced);
    // The same without waiting; `on_answer` comes exactly once, on this thread when the request
    // cannot be sent, else on the client's.
    void ask_later(std::string_view text, OnAnswer on_answer) {
        ask_later(text, text.size(), std::move(on_answer));
    }
    void ask_later(std::string_view text, std::size_t announced, OnAnswer on_answer);

  private:
    static bool find_service(qmi_service_info& info);
    bool wait_for_service(qmi_service_info& info, std::chrono::milliseconds at_most);
    static void take_indication(qmi_client_type client, unsigned id, void* indication,
                                unsigned length, void* self);

    OnIndication on_indication_;
    qmi_client_os_params signal_;
    qmi_client_type client_ = nullptr;
};

}  // namespace bench
