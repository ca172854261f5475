// SPDX-License-Identifier: Apache-2.0
// What passes through the library's stack frames: the unwinding of a cancelled thread, and no
// exception.
//
// The sources are compiled with -fexceptions. So when a thread is cancelled in a system call
// (pthread_cancel(3), QThread::terminate()), the destructors of the library and of its caller run,
// and no lock stays held.
//
// An exception of other code, such as a file system of the application's or Qt without memory, ends
// the process where it reaches the library, with the stack of the throw still in the core dump. The
// library's callers do not expect exceptions, and its own code is not written to be left in the
// middle by one. The linker replaces the C++ personality routine, which the unwinder calls for each
// frame of the library, by the one below.

#include <cxxabi.h>
#include <exception>
#include <unwind.h>

namespace {

/// Ends the process as std::terminate() does for an exception that nobody catches.
[[noreturn]] void endWith(_Unwind_Exception* exception) {
    abi::__cxa_begin_catch(exception);
    std::terminate();
}

} // namespace

// The unwinder searches for a handler first, and forces nothing then. When it finds none in this
// frame, the exception would leave the library.
#if defined(__ARM_EABI_UNWINDER__)

extern "C" _Unwind_Reason_Code __real___gxx_personality_v0(_Unwind_State, _Unwind_Exception*,
                                                           _Unwind_Context*);

extern "C" _Unwind_Reason_Code __wrap___gxx_personality_v0(_Unwind_State state,
                                                           _Unwind_Exception* exception,
                                                           _Unwind_Context* context) {
    const _Unwind_Reason_Code result = __real___gxx_personality_v0(state, exception, context);
    if (state == _US_VIRTUAL_UNWIND_FRAME && result == _URC_CONTINUE_UNWIND)
        endWith(exception);
    return result;
}

#else

extern "C" _Unwind_Reason_Code __real___gxx_personality_v0(int, _Unwind_Action,
                                                           _Unwind_Exception_Class,
                                                           _Unwind_Exception*, _Unwind_Context*);

extern "C" _Unwind_Reason_Code __wrap___gxx_personality_v0(int version, _Unwind_Action actions,
                                                           _Unwind_Exception_Class exceptionClass,
                                                           _Unwind_Exception* exception,
                                                           _Unwind_Context* context) {
    const _Unwind_Reason_Code result =
        __real___gxx_personality_v0(version, actions, exceptionClass, exception, context);
    if ((actions & _UA_SEARCH_PHASE) && result == _URC_CONTINUE_UNWIND)
        endWith(exception);
    return result;
}

#endif
