<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/**
 * Answers requests: checks the login, finds the action, and logs what came of it.
 *
 * An action's method reads and checks its fields, and returns what is to be
 * done with them: that part runs as one transaction with its line in the log,
 * so that a request either takes place and is logged, or has no effect.
 */
final class Authority
{
    /** @param array<string, array{class-string, string}> $actions action => class and method that perform it */
    public function __construct(private readonly Store $store, private readonly array $actions)
    {
    }

    /** The text of the answer, a data answer or an error block. */
    public function answer(Request $request): string
    {
        // A login that fails is not logged: people type passwords into the wrong field.
        $caller = null;
        $action = '';
        try {
            $caller = $this->caller($request);
            $action = $this->knownAction($request);
            [$class, $method] = $this->actions[$action];
            $perform = (new $class($this->store))->$method($request, $caller);
            $request->fields->finish();
            return $this->store->atomically(function () use ($request, $action, $caller, $perform): string {
                $answer = $perform();
                $this->log($request, $action, $caller, 'done');
                return $answer;
            });
        } catch (Refusal $refusal) {
            $this->logRefusal($request, $action, $caller, $refusal);
            return Answer::error($refusal->fault, $request->page, $refusal->getMessage());
        }
    }

    /** A refusal has no effect that its line in the log could belong to: it is answered without one too. */
    private function logRefusal(Request $request, string $action, ?Caller $caller, Refusal $refusal): void
    {
        try {
            $this->store->atomically(fn () => $this->log($request, $action, $caller, $refusal->getMessage()));
        } catch (\PDOException $failure) {
            error_log("A refusal is not in the log of requests: {$failure->getMessage()}");
        }
    }

    private function log(Request $request, string $action, ?Caller $caller, string $outcome): void
    {
        $login = $caller?->login ?? '';
        $fields = $request->fields->taken();
        $this->store->logRequest($request->page, $action, $login, $fields, $outcome, $request->client);
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
