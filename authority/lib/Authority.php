<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** Answers requests: checks the login, finds the action, and logs what came of it. */
final class Authority
{
    /** @param array<string, array{class-string, string}> $actions action => class and method that perform it */
    public function __construct(private readonly Store $store, private readonly array $actions)
    {
    }

    /** The text of the answer, a data answer or an error block. */
    public function answer(Request $request): string
    {
        $caller = null;
        $action = '';
        try {
            $caller = $this->caller($request);
            $action = $this->knownAction($request);
            [$class, $method] = $this->actions[$action];
            $answer = (new $class($this->store))->$method($request, $caller);
            $outcome = 'done';
        } catch (Refusal $refusal) {
            $answer = Answer::error($refusal->fault, $request->page, $refusal->getMessage());
            $outcome = $refusal->getMessage();
        }
        // A login that failed is not logged: people type passwords into the wrong field.
        $this->store->logRequest($request->page, $action, $caller?->login ?? '', $request->fields->taken(), $outcome);
        return $answer;
    }

    private function caller(Request $request): Caller
    {
        if ($request->fields->isEmpty()) {
            throw new Refusal(Fault::BadRequest, 'The request holds no form fields; they come as a multipart POST.');
        }
        return (new Accounts($this->store))->check($request->fields->raw('login'), $request->fields->raw('passwd'));
    }

    private function knownAction(Request $request): string
    {
        $action = $request->fields->raw('action');
        if (!isset($this->actions[$action])) {
            $known = implode(', ', array_keys($this->actions));
            throw new Refusal(Fault::UnknownAction, "This page has no such action; it has: $known.");
        }
        return $action;
    }
}
