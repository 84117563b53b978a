# Completion of tovana-embed's command line in bash. Installed as
# share/bash-completion/completions/tovana-embed it is loaded when it is wanted; a shell without the
# bash-completion package reads it with `source`. It uses nothing of that package.

# Offers the words that begin as the word under the cursor does, and no file names.
_tovana_embed_words() {
  compopt +o default
  mapfile -t COMPREPLY < <(compgen -W "$1" -- "$2")
}

# A model is a name on the hub or a folder, which begins with ./, ../ or /.
_tovana_embed_model() {
  if [[ $1 == [./~]* ]]; then
    compopt +o default -o dirnames
  else
    _tovana_embed_words "all-MiniLM-L6-v2 ./" "$1"
    [[ ${COMPREPLY[0]-} != ./ ]] || compopt -o nospace
  fi
}

# Where COMPREPLY stays empty, bash offers file names itself and knows how to quote them.
_tovana_embed() {
  local current=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command="" ended="" word
  local engine="--backend --model --precision --dimension --base-url --api-url --settings --wait-s --no-wait --log-level"
  COMPREPLY=()
  # The sign of --backend=api is a word of its own.
  if [[ $current == "=" ]]; then
    current=""
  elif [[ $before == "=" ]]; then
    before=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    if [[ $word == -- ]]; then ended=yes; fi
    if [[ -z $command && $word != -* ]]; then command=$word; fi
  done

  if [[ -z $ended ]]; then
    case $before in
      --index | --input | --output | --queries | --settings) ;;
      --model) _tovana_embed_model "$current" ;;
      --backend) _tovana_embed_words "auto local api openai tfidf" "$current" ;;
      --prompt | --text-prompt) _tovana_embed_words "query document" "$current" ;;
      --precision) _tovana_embed_words "float32 bfloat16" "$current" ;;
      --format) _tovana_embed_words "jsonl npy" "$current" ;;
      --dtype) _tovana_embed_words "float64 float32" "$current" ;;
      --log-level) _tovana_embed_words "debug info warning" "$current" ;;
      --api-url | --base-url | --batch-size | --concurrency | --deadline | --dimension | --id-member | --min-score | --revision | \
        --text-member | --top | --wait-s)
        _tovana_embed_words "" "$current"
        ;;
      *) before="" ;;
    esac
    if [[ -n $before ]]; then return; fi
    if [[ $current == -* ]]; then
      case $command in
        "") _tovana_embed_words "--help --version" "$current" ;;
        embed)
          _tovana_embed_words "--help --input --jsonl --text-member --output --format --dtype --batch-size --concurrency --keep-going --deadline --prompt $engine" "$current"
          ;;
        index)
          _tovana_embed_words "--help --input --jsonl --text-member --id-member --keep-gone --rebuild --batch-size --concurrency --prompt $engine" "$current"
          ;;
        search)
          _tovana_embed_words "--help --queries --index --input --jsonl --text-member --top --min-score --json --prompt --text-prompt $engine" "$current"
          ;;
        status) _tovana_embed_words "--help --wait --json $engine" "$current" ;;
        migrate-check) _tovana_embed_words "--help $engine" "$current" ;;
        pull) _tovana_embed_words "--help --revision --refresh --offline" "$current" ;;
      esac
      return
    fi
  fi
  case $command in
    "") _tovana_embed_words "embed index search status migrate-check pull" "$current" ;;
    index | migrate-check) ;;
    pull) _tovana_embed_model "$current" ;;
    *) _tovana_embed_words "" "$current" ;;
  esac
}

complete -o default -F _tovana_embed tovana-embed
