// The program's output: standard output for what was asked for, standard error for problems.

#pragma once

#include <string>
#include <string_view>

namespace sentrova::control {

// Not thread-safe.
class Console {
  public:
    Console();
    // Has no colours, wherever its text goes.
    struct Plain {};
    explicit Console(Plain /*unused*/) : isTerminal_(false), isErrorTerminal_(false) {}
    // Writes what is still buffered.
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    // Buffers the text for standard output. After a failed write, further text is dropped.
    void print(std::string_view text);
    // Writes the buffered text. Returns false if any text could not be written; the first failure is told on standard
    // error.
    bool flush();

    // Writes "sentrovactl: TEXT" and a line feed to standard error.
    void problem(std::string_view text);

    // Whether a person reads the output there: colours, progress and questions make sense.
    bool isTerminal() const { return isTerminal_; }
    bool isErrorTerminal() const { return isErrorTerminal_; }

    enum class Colour { red, yellow, green, bold };
    // The text in the colour if standard output is a terminal, and as it is otherwise. NO_COLOR in the environment
    // turns colours off.
    std::string coloured(Colour colour, std::string_view text) const;

    // Asks on standard error and reads a line from standard input. Returns true for "y" or "yes".
    bool confirms(std::string_view question);

  private:
    std::string buffer_;
    bool failed_ = false;
    bool isTerminal_;
    bool isErrorTerminal_;
};

}  // namespace sentrova::control
