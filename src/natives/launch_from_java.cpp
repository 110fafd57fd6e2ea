#include "natives/launch_from_java.h"

#include <cerrno>

#include "quillon/boundary.h"

const char* JavaTexts::text(jstring string) {
    if (string == nullptr || !ok()) return nullptr;
    char* text = nullptr;
    bool hasNul = false;
    if (!native_text(env_, string, arena_, &text, &hasNul))
        refuse(PROC_OUT_OF_MEMORY, ENOMEM);
    else if (hasNul)
        refuse(PROC_SYSTEM_ERR, EINVAL);
    return text;
}

char** JavaTexts::array(jobjectArray array) {
    if (array == nullptr || !ok()) return nullptr;
    jsize count = env_->GetArrayLength(array);
    char** vector = arena_.allocate_array<char*>(static_cast<size_t>(count) + 1);
    if (vector == nullptr) {
        refuse(PROC_OUT_OF_MEMORY, ENOMEM);
        return nullptr;
    }
    for (jsize i = 0; i < count && ok(); ++i) {
        LocalRef<jstring> element(env_, static_cast<jstring>(env_->GetObjectArrayElement(array, i)));
        vector[i] = const_cast<char*>(text(element.get()));
    }
    vector[count] = nullptr;
    return vector;
}

void JavaTexts::raise(const char* message) const {
    if (!env_->ExceptionCheck()) ThrowException(env_, result_, message, sysErr_);
}
