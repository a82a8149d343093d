#include "platform/clusterd/file_transfer.h"

#include <algorithm>
#include <cerrno>

#include "platform/clusterd/log.h"

namespace tarn::platform {

namespace {

constexpr size_t kPieceSize = size_t{512} * 1024;
constexpr int kPiecesOnTheirWay = 8;

// A session is opened within this time, or the other member died over it.
constexpr int kOpenMs = 60000;

// The asking side speaks at least this often while it waits, and the answering side gives up after that much silence.
constexpr int kKeepAliveMs = 5000;
constexpr int kSilenceMs = 20000;

Message message_of(Wire_Kind kind, uint64_t number = 0) {
  Message message;
  message.kind = kind;
  message.number = number;
  return message;
}

// The asking side's conversation. Unless it was finished, the other side is told to give up.
class Session {
 public:
  explicit Session(const Transfer_Limits &limits) : limits_(limits) {}
  ~Session() {
    if (is_open_) channel_.send(message_of(Wire_Kind::abandon));
  }
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  int open(Bus *bus, const std::string &member, const Message &request, Message *answer);
  int ask(const Message &message);

  // The answer to the earliest question that is not answered yet; its code when that is a failure.
  int await(Message *answer);

  int on_their_way() const { return on_their_way_; }
  void finish() { is_open_ = false; }

 private:
  const Transfer_Limits limits_;
  Bus_Channel channel_;
  bool is_open_ = false;
  int on_their_way_ = 0;
};

int Session::open(Bus *bus, const std::string &member, const Message &request, Message *answer) {
  int result = bus->request(member, request, std::min(limits_.deadline, deadline_after(kOpenMs)), answer);
  if (result == 0) result = answer->value;
  if (result == 0) result = bus->ask_session(member, answer->text, &channel_);
  is_open_ = result == 0;
  return result;
}

int Session::ask(const Message &message) {
  ++on_their_way_;
  return channel_.send(message);
}

int Session::await(Message *answer) {
  for (;;) {
    if (has_hung_up(limits_.caller_fd)) return -ECANCELED;
    const int result = channel_.receive(answer, std::min(remaining_ms(limits_.deadline), kKeepAliveMs));
    if (result == 0) {
      --on_their_way_;
      return answer->value;
    }
    if (result != -ETIME || remaining_ms(limits_.deadline) == 0) return result;
    const int sent = channel_.send(message_of(Wire_Kind::keep_alive));
    if (sent != 0) return sent;
  }
}

size_t next_piece(uint64_t size, uint64_t position) {
  return std::min<uint64_t>(kPieceSize, size - position);
}

int send_pieces(Session *session, Outgoing_File *source, Progress_File *progress) {
  Message answer;
  int result = 0;
  while (result == 0 && source->position() < source->size()) {
    if (session->on_their_way() == kPiecesOnTheirWay) {
      result = session->await(&answer);
      continue;
    }
    Message piece = message_of(Wire_Kind::piece, source->position());
    result = source->read(next_piece(source->size(), source->position()), &piece.more);
    if (result == 0) result = session->ask(piece);
    if (result == 0) result = progress->show(source->position(), source->size());
  }
  while (result == 0 && session->on_their_way() > 0) result = session->await(&answer);
  return result;
}

int fetch_pieces(Session *session, uint64_t size, Incoming_File *target, Progress_File *progress) {
  Message answer;
  int result = 0;
  uint64_t asked = 0;
  uint64_t received = 0;
  while (result == 0 && received < size) {
    if (session->on_their_way() < kPiecesOnTheirWay && asked < size) {
      Message question = message_of(Wire_Kind::read_piece, asked);
      question.value = static_cast<int>(next_piece(size, asked));
      asked += static_cast<uint64_t>(question.value);
      result = session->ask(question);
      continue;
    }
    result = session->await(&answer);
    if (result == 0) result = target->write(received, answer.more);
    if (result == 0) result = answer.more.empty() ? -EPROTO : 0;
    received += answer.more.size();
    if (result == 0) result = progress->show(received, size);
  }
  return result;
}

int show_complete(Progress_File *progress) {
  const int result = progress->show_complete();
  if (result != 0) log_line("cannot write the progress file (%d)", result);
  return 0;  // the file itself is in its place
}

// The answering side's conversations; each returns when the transfer is over, however it ended. What was received of a
// file that failed is gone before the other side hears of the failure.

void answer_for_file(Bus_Channel *channel, Incoming_File *file, int result) {
  if (result != 0) file->discard();
  channel->answer(reply_of(result));
}

void serve_receiving(Bus_Channel *channel, Incoming_File *file) {
  Message message;
  int result = 0;
  while (result == 0 && (result = channel->receive(&message, kSilenceMs)) == 0) {
    switch (message.kind) {
      case Wire_Kind::piece:
        result = file->write(message.number, message.more);
        answer_for_file(channel, file, result);
        break;
      case Wire_Kind::finish:
        answer_for_file(channel, file, file->commit(message.number, message.text));
        return;
      case Wire_Kind::keep_alive:
        break;
      default:
        result = -ECANCELED;
    }
  }
  log_line("receiving a file was broken off (%d)", result);
}

Message read_piece(Outgoing_File *file, const Message &question) {
  Message answer;
  if (question.number != file->position() || question.value < 0 || static_cast<size_t>(question.value) > kPieceSize) {
    return reply_of(-EPROTO);
  }
  answer.value = file->read(static_cast<size_t>(question.value), &answer.more);
  if (answer.value != 0) answer.more.clear();
  return answer;
}

void serve_sending(Bus_Channel *channel, Outgoing_File *file) {
  Message message;
  int result = 0;
  while (result == 0 && (result = channel->receive(&message, kSilenceMs)) == 0) {
    switch (message.kind) {
      case Wire_Kind::read_piece: {
        const Message answer = read_piece(file, message);
        result = answer.value;
        channel->answer(answer);
        break;
      }
      case Wire_Kind::close_file: {
        Message answer = reply_of(0, file->digest());
        answer.number = file->position();
        channel->answer(answer);
        return;
      }
      case Wire_Kind::keep_alive:
        break;
      default:
        result = -ECANCELED;
    }
  }
  log_line("sending a file was broken off (%d)", result);
}

bool is_usable_path(const std::string &path) {
  return path.starts_with('/') && path.find('\0') == std::string::npos;
}

}  // namespace

// ------------------------------------------------------------------------------------------------ asking side

int File_Transfer::send(const std::string &member, const File_Argument &files, const Transfer_Limits &limits) {
  Outgoing_File source;
  Progress_File progress(files.progress);
  Session session(limits);
  Message answer;

  int result = source.open(files.source_path);
  if (result == 0) result = progress.show(0, source.size());
  if (result != 0) return result;

  Message request = message_of(Wire_Kind::put_file, source.size());
  request.text = files.destination_path;
  request.permissions = source.permissions();
  result = session.open(bus_, member, request, &answer);
  if (result == 0) result = send_pieces(&session, &source, &progress);
  if (result != 0) return result;

  Message last = message_of(Wire_Kind::finish, source.position());
  last.text = source.digest();
  result = session.ask(last);
  if (result == 0) result = session.await(&answer);
  if (result != 0) return result;
  session.finish();
  return show_complete(&progress);
}

int File_Transfer::fetch(const std::string &member, const File_Argument &files, const Transfer_Limits &limits) {
  Incoming_File target(partial_files_);
  Progress_File progress(files.progress);
  Session session(limits);
  Message answer;

  Message request = message_of(Wire_Kind::get_file);
  request.text = files.source_path;
  int result = session.open(bus_, member, request, &answer);
  const uint64_t size = answer.number;
  if (result == 0) result = target.open(files.destination_path, size, answer.permissions);
  if (result == 0) result = progress.show(0, size);
  if (result == 0) result = fetch_pieces(&session, size, &target, &progress);
  if (result == 0) result = session.ask(message_of(Wire_Kind::close_file));
  if (result == 0) result = session.await(&answer);
  if (result != 0) return result;

  session.finish();
  result = target.commit(answer.number, answer.text);
  return result != 0 ? result : show_complete(&progress);
}

int File_Transfer::copy_here(const File_Argument &files, const Transfer_Limits &limits) {
  Outgoing_File source;
  Incoming_File target(partial_files_);
  Progress_File progress(files.progress);

  int result = source.open(files.source_path);
  if (result == 0) result = target.open(files.destination_path, source.size(), source.permissions());
  if (result == 0) result = progress.show(0, source.size());
  while (result == 0 && source.position() < source.size()) {
    if (is_stopping()) return -ESHUTDOWN;
    if (remaining_ms(limits.deadline) == 0) return -ETIME;
    if (has_hung_up(limits.caller_fd)) return -ECANCELED;
    std::string piece;
    const uint64_t offset = source.position();
    result = source.read(next_piece(source.size(), offset), &piece);
    if (result == 0) result = target.write(offset, piece);
    if (result == 0) result = progress.show(source.position(), source.size());
  }
  if (result == 0) result = target.commit(source.position(), source.digest());
  return result != 0 ? result : show_complete(&progress);
}

// ------------------------------------------------------------------------------------------------ answering side

Message Transfer_Sessions::open(const std::string &asking_member, const Message &request) {
  if (!is_usable_path(request.text)) return reply_of(-EINVAL);
  return request.kind == Wire_Kind::put_file ? open_receiving(asking_member, request)
                                             : open_sending(asking_member, request);
}

Message Transfer_Sessions::open_receiving(const std::string &asking_member, const Message &request) {
  const auto file = std::make_shared<Incoming_File>(partial_files_);
  Message answer;
  answer.value = file->open(request.text, request.number, request.permissions);
  if (answer.value == 0) answer.value = start(asking_member, file, &answer.text, serve_receiving);
  return answer;
}

Message Transfer_Sessions::open_sending(const std::string &asking_member, const Message &request) {
  const auto file = std::make_shared<Outgoing_File>();
  Message answer;
  answer.value = file->open(request.text);
  if (answer.value == 0) answer.value = start(asking_member, file, &answer.text, serve_sending);
  answer.number = file->size();
  answer.permissions = file->permissions();
  return answer;
}

template <typename File>
int Transfer_Sessions::start(const std::string &asking_member, std::shared_ptr<File> file, std::string *session,
                             void (*serve)(Bus_Channel *channel, File *file)) {
  *session = random_name();
  if (session->empty()) return -EIO;
  const auto channel = std::make_shared<Bus_Channel>();
  const int result = bus_->answer_session(asking_member, *session, channel.get());
  if (result != 0) return result;

  if (++sessions_ > kSessionsAtOnce) {
    --sessions_;
    return -EBUSY;
  }
  const bool is_started = threads_.submit([this, channel, file, serve] {
    serve(channel.get(), file.get());
    --sessions_;
  });
  if (!is_started) --sessions_;
  return is_started ? 0 : -EAGAIN;
}

}  // namespace tarn::platform
