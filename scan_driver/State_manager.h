// State_manager: decides when the imaging engine is powered, asleep or off,
// and when the image stream runs.
//
// Sessions only report counts and wishes: how many sessions are open, how
// many have scanning started, how many hold sleep off, whether the client
// wants power at all, and the sleep time-out. After every change
// power_up_check compares the wishes with the current state and makes the
// few transitions needed, calling the trait for power and the stream driver
// for streaming. A one-shot alarm puts an idle engine to sleep after the
// time-out.
//
//   off     -> on       power wanted and a session open (trait power_on)
//   on      -> asleep   idle for the time-out (stream stopped, trait sleep)
//   asleep  -> on       scanning wanted, a sleep hold, or time-out set to 0
//   on/asleep -> off    power not wanted or no session open (trait power_off)
//
// Users: the sessions (client threads), start-up, and the timer thread of
// the sensor's monitor (go_to_sleep).
//
// Threading: the monitor forwards to the sensor's monitor. Every public
// operation except the three predicates must be called with that monitor
// held and runs inside a State_manager::lock, a logical lock that keeps a
// second thread out of the manager while a call inside it waits on the
// shared monitor (the stream driver's wait for stop gives the monitor up).
//
// Tick arithmetic: "idle since" is kept as 64 bits as the tick was read
// (never 0 while idle), but the sleep alarm's due time is the 32-bit tick,
// whose comparisons wrap: the longest delay it can express is 2^31 - 1 ms
// (about 24.8 days). A longer time-out (0xFFFFFFFF included) waits that
// long instead of coming due at once.
#ifndef VQX_STATE_MANAGER_H
#define VQX_STATE_MANAGER_H

#include <cstdint>

#include "Exposure_settings.h"
#include "VQXScanInterface.h"
#include "monitor.h"

class Sensor;

class State_manager : public Forward_monitor<State_manager> {
public:
    enum Power_state : uint8_t { POWER_OFF = 0, POWER_ASLEEP = 1, POWER_ON = 2 };

    // Guard of the manager's logical lock. The caller must hold the sensor's
    // monitor; construction waits (without time limit, with the monitor
    // released) until no other guard is held.
    class lock {
    public:
        explicit lock(State_manager* manager);
        ~lock();
        lock(const lock&) = delete;
        lock& operator=(const lock&) = delete;

    private:
        State_manager* p_state_manager;
    };

    // Default sleep time-out of the next first open, milliseconds (0: off).
    static uint64_t g_msSleepTimeout;

    // Forwards to the monitor of the driver's sensor (the_scan_driver).
    State_manager();
    explicit State_manager(Sensor volatile* sensor);
    ~State_manager() override;

    virtual bool should_power_up() const;
    virtual bool should_stream_images() const;

    bool is_idle() const;
    bool is_unlocked() const;
    bool get_power_state() const;
    uint64_t get_sleep_timeout() const;
    void set_sleep_timeout(unsigned long ms);
    bool increment_open_count();
    void decrement_open_count(bool close);
    bool increment_scanning_count(_tagVQX_SCANNER_LIGHTING& lights,
                                  Exposure_settings& exposure, bool flag);
    void decrement_scanning_count(bool wait);
    void set_power_state(bool on);
    void enable_sleep();
    void disable_sleep();
    bool power_up_check();
    void go_to_sleep();

    // Read-only views for diagnostics and tests (monitor held).
    uint32_t get_open_count() const { return open_count; }
    uint32_t get_scanning_count() const { return scanning_count; }
    uint32_t get_nosleep_count() const { return nosleep_count; }
    Power_state get_power() const { return power; }
    bool is_streaming() const { return streaming; }
    uint64_t get_idle_since() const { return idle_since; }
    const Alarm& get_sleep_alarm() const { return sleep_alarm; }

private:
    // Sets the one-shot sleep alarm at idle-since + @p timeout (32-bit
    // tick), replacing any earlier one.
    void schedule_sleep(uint64_t timeout);
    void cancel_sleep();
    void set_power(Power_state state);

    bool unlocked = true;
    Condition unlock_condition;
    uint32_t open_count = 0;
    uint32_t scanning_count = 0;
    bool power_wanted = true;
    bool streaming = false;
    uint64_t sleep_timeout;
    uint64_t idle_since = 0;
    uint32_t nosleep_count = 0;
    Power_state power = POWER_OFF;
    _tagVQX_SCANNER_LIGHTING lights{};
    Exposure_settings exposure{};
    bool start_flag = false;
    Alarm sleep_alarm;
};

#endif
